// account.cpp - the signed-in account, from [account].
#include "common/c_functions.h"
#include "linux/settings/settings.h"

#include <platform/account.h>

namespace {

constexpr const char* kGroup = "account";

int giveSetting(const char* key, char** out)
{
    return seam::guarded(-1, [&] { return seam::give(settings::shared(kGroup, key), out); });
}

}  // namespace

int sso_get_guid(char** out)
{
    return giveSetting("guid", out);
}

int sso_get_auth_token(char** out)
{
    return giveSetting("auth_token", out);
}

int sso_get_login_info(sso_login_info_s* info)
{
    return seam::guarded(-1, [&] {
        const auto id = settings::shared(kGroup, "login_id");
        if (!id || id->size() >= sizeof info->user_id)
            return -1;
        memcpy(info->user_id, id->c_str(), id->size() + 1);
        return 0;
    });
}
