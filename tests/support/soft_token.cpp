// soft_token.cpp - a software token for tests, in a temporary folder.
#include "soft_token.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace device {

std::string softTokenModule()
{
    for (const char* const path :
         {"/usr/lib/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so",
          "/usr/lib/arm-linux-gnueabihf/softhsm/libsofthsm2.so",
          "/usr/lib/aarch64-linux-gnu/softhsm/libsofthsm2.so", "/usr/lib64/libsofthsm2.so"}) {
        if (std::filesystem::exists(path) && std::filesystem::exists("/usr/bin/softhsm2-util"))
            return path;
    }
    return "";
}

SoftToken::SoftToken() : m_pinFile(m_folder.path() + "/pin")
{
    std::filesystem::create_directory(tokens());
    const std::string conf = folder() + "/softhsm2.conf";
    std::ofstream(conf) << "directories.tokendir = " << tokens()
                        << "\nobjectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    writePin(m_pin + "\n");
    add(m_label);
}

SoftToken::~SoftToken() = default;

void SoftToken::add(const std::string& label) const
{
    const std::string command = "softhsm2-util --init-token --free --label " + label + " --pin " +
                                m_pin + " --so-pin 12345678 >/dev/null";
    if (system(command.c_str()) != 0)
        throw std::runtime_error("softhsm2-util failed");
}

void SoftToken::pull() const
{
    std::filesystem::rename(tokens(), tokens() + ".pulled");
    std::filesystem::create_directory(tokens());
}

void SoftToken::putBack() const
{
    std::filesystem::remove_all(tokens());
    std::filesystem::rename(tokens() + ".pulled", tokens());
}

void SoftToken::writePin(const std::string& bytes, unsigned mode) const
{
    std::ofstream(m_pinFile) << bytes;
    chmod(m_pinFile.c_str(), mode);
}

void SoftToken::use(Conf& conf, const std::string& module) const
{
    conf.set("keystore", "module", module);
    conf.set("keystore", "token", m_label);
    conf.set("keystore", "pin_file", m_pinFile);
    conf.set("keystore", "store", folder() + "/store");
}

}  // namespace device
