// pkcs11.cpp - a key in a PKCS#11 module with wrong answers. The input is the sequence of its answers.
#include "keystore/pkcs11.h"

#include "fuzz.h"
#include "keystore/token_keys.h"

#include <dlfcn.h>

#include <array>

namespace {

using Feed = void (*)(const std::uint8_t* data, std::size_t size);

Feed feedOf(const char* module)
{
    void* const library = dlopen(module, RTLD_NOW | RTLD_LOCAL);
    FUZZ_REQUIRE(library != nullptr);
    return reinterpret_cast<Feed>(dlsym(library, "test_pkcs11_feed"));
}

// Failures are reported by the one exception type that the key store expects, with a text.
template <typename Step>
void saysWhy(Step step)
{
    try {
        step();
    } catch (const secure::Error& error) {
        FUZZ_REQUIRE(*error.what() != '\0');
    }
}

void useKey(const pkcs11::Module& module)
{
    const pkcs11::Session session(module, module.slotOf("").value_or(0), false);
    saysWhy([&] { static_cast<void>(tokenkeys::exists(session, 7)); });
    saysWhy([&] { static_cast<void>(tokenkeys::faultIn(session, 7)); });
    saysWhy([&] {
        std::array<unsigned char, rawrsa::kBlockSize> block{0, 1, 0xff};
        FUZZ_REQUIRE(tokenkeys::privateOperation(session, 7, block.data()).size() ==
                     rawrsa::kBlockSize);
    });
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const pkcs11::Module& module = pkcs11::Module::at(LIAR_MODULE);
    static const Feed feed = feedOf(LIAR_MODULE);
    feed(data, size);
    saysWhy([] { useKey(module); });
    return 0;
}
