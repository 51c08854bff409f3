// places.h - fixed paths on a device, and the limit from which a certificate has to be renewed.
#pragma once

namespace places {

/// The device's certificate.
inline constexpr const char* kDeviceCertificate =
    "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";

/// A certificate that is valid for fewer days has to be renewed.
inline constexpr int kFewDays = 30;

}  // namespace places
