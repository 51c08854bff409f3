// zone.cpp - the offsets of the local time zone, as the C library knows it.
#include "zone.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

namespace zone {

namespace {

constexpr time_t kDay = time_t{24} * 60 * 60;
/// Every zone with daylight saving has standard time at least once in this period.
constexpr int kDays = 400;

/// Finds the nearest moment of standard time: the C library tells only the sum of both offsets.
bool standardOffset(time_t moment, int& offset)
{
    for (int day = 1; day <= kDays; day++) {
        for (const time_t near : {moment - day * kDay, moment + day * kDay}) {
            struct tm then {};
            if (localtime_r(&near, &then) != nullptr && then.tm_isdst == 0) {
                offset = static_cast<int>(then.tm_gmtoff);
                return true;
            }
        }
    }
    return false;
}

bool isFile(const std::string& name)
{
    const char* const folder = getenv("TZDIR");
    const std::string path =
        name[0] == '/'
            ? name
            : std::string(folder != nullptr ? folder : "/usr/share/zoneinfo") + "/" + name;
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// True for "CET-1CEST", "<+03>-3" and the like: a name of at least three characters and an offset.
bool isRule(const std::string& name)
{
    std::size_t end = 0;
    if (name[0] == '<')
        end = name.find('>') + 1;  // 0 when there is none
    else
        while (isalpha(static_cast<unsigned char>(name[end])) != 0)
            end++;
    return end >= 3 && end < name.size() && strchr("+-0123456789", name[end]) != nullptr;
}

}  // namespace

bool offsetsAt(time_t moment, Offsets& out)
{
    struct tm now {};
    if (localtime_r(&moment, &now) == nullptr)
        return false;
    const int whole = static_cast<int>(now.tm_gmtoff);
    int standard = whole;
    if (now.tm_isdst > 0 && !standardOffset(moment, standard))
        standard = whole;
    out = {standard, whole - standard};
    return true;
}

bool isNamed()
{
    const char* const value = getenv("TZ");
    if (value == nullptr || *value == '\0')
        return true;
    const std::string name = *value == ':' ? value + 1 : value;
    return name.empty() || name == "UTC" || name == "GMT" || isFile(name) || isRule(name);
}

}  // namespace zone
