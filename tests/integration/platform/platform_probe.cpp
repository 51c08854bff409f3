// platform_probe.cpp - calls the Linux backend through its shared library, for tests that look at
// the process from outside.
//
// usage: platform_probe levels      logs a public and a private text at each level
//        platform_probe fields     logs a method's name and a transfer's end
//        platform_probe twice TEXT  logs a public text on a coloured line, twice
//        platform_probe gateway     prints "<return> <exists>" of the default gateway
//        platform_probe starved     the same without a free descriptor
//        platform_probe changes     prints for each line of its input whether the network has changed since the last
#include <platform/log.h>
#include <platform/network.h>

#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

#define LOG(priority, text, ...)                                                               \
    __dlog_print(priority, "BILLING_SERVICE", "%s: %s(%d) > " text, "Probe.cpp", __func__, 42, \
                 ##__VA_ARGS__)

int logLevels()
{
    int written = 0;
    for (const log_priority priority : {DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR}) {
        written = LOG(priority, "CountryCode:[%s]", "public");
        LOG(priority, "RequestGetProducts start Header: %s", "Atoken: CANARY");
        LOG(priority, "RequestGetProducts start Url[%s]", "https://host/path?guid=CANARY");
        LOG(priority, "nobody classified this %s", "CANARY");
    }
    printf("%d\n", written);
    return 0;
}

int logTwice(const char* text)
{
    int written = 0;
    for (int i = 0; i < 2; i++)
        written = LOG(DLOG_ERROR, "\033[0;31mCountryCode:[%s]\033[0;m", text);
    printf("%d\n", written);
    return 0;
}

int askGateway()
{
    bool exists = false;
    const int result = connection_profile_check_default_gateway(&exists);
    printf("%d %d\n", result, exists ? 1 : 0);
    return 0;
}

int askForChanges()
{
    connection_profile_has_changed();
    puts("ready");
    fflush(stdout);
    for (int c = getchar(); c != EOF; c = getchar()) {
        printf("%d\n", connection_profile_has_changed() ? 1 : 0);
        fflush(stdout);
    }
    return 0;
}

int askStarved()
{
    const rlimit none{3, 3};
    setrlimit(RLIMIT_NOFILE, &none);
    return askGateway();
}

int logFields()
{
    log_set_caller(":1.42");
    __dlog_print(DLOG_INFO, "BILLING_SERVICE", "%s: %s(%d) > method name = %s\n", "Probe.cpp",
                 "logFields", 42, "get_product_list");
    log_set_caller(nullptr);
    __dlog_print(
        DLOG_INFO, "BILLING_PLATFORM",
        "transfer %u: %s, curl %d, HTTP %ld, new connections %ld, name %ld us, connect %ld us, "
        "TLS %ld us, first byte %ld us, whole %ld us, %ld bytes",
        7U, "https://store/products?guid=CANARY", 0, 503L, 1L, 1L, 2L, 3L, 4L, 5L, 6L);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc > 2 && strcmp(argv[1], "twice") == 0)
        return logTwice(argv[2]);
    if (argc < 2)
        return 2;
    if (strcmp(argv[1], "levels") == 0)
        return logLevels();
    if (strcmp(argv[1], "fields") == 0)
        return logFields();
    if (strcmp(argv[1], "gateway") == 0)
        return askGateway();
    if (strcmp(argv[1], "starved") == 0)
        return askStarved();
    if (strcmp(argv[1], "changes") == 0)
        return askForChanges();
    return 2;
}
