// places.h - files of a device whose places are fixed, and when they have to be looked at.
#pragma once

namespace places {

/// The device's certificate.
inline constexpr const char* kDeviceCertificate =
    "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";

/// A certificate that is valid for fewer days has to be renewed.
inline constexpr int kFewDays = 30;

}  // namespace places
