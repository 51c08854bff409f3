// example_device.h - the device of the worked example: a folder of files; the log is standard error.
#pragma once

#include "device_conf.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

class ExampleDevice {
public:
    ExampleDevice() { setenv("PLEVO_EXAMPLE_DEVICE", m_folder.path().c_str(), 1); }

    /// Writes or removes the file of a value.
    void set(const std::string& name, const std::optional<std::string>& value) const
    {
        const std::filesystem::path path = m_folder.path() + "/" + name;
        std::filesystem::create_directories(path.parent_path());
        if (value)
            std::ofstream(path, std::ios::binary) << *value;
        else
            std::filesystem::remove(path);
    }

    const device::CapturedLog& log() const { return m_log; }

private:
    device::Folder m_folder;
    device::CapturedLog m_log;
};
