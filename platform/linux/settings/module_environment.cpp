// module_environment.cpp - the environment variables that the key store's module reads.
#include "module_environment.h"

#include "settings.h"
#include "settings_file.h"
#include "settings_known.h"

#include <cstdlib>

namespace keystore {

void takeEnvironment()
{
    const std::string path = settings::filePath();
    const settings::Values values = settings::parse(path, settings::readFile(path));
    const auto found = values.texts.find(settings::ByName::View{"keystore", "environment"});
    if (found == values.texts.end())
        return;
    const auto variables = settings::variables(found->second);
    if (!variables)
        return;
    for (const auto& [name, value] : *variables)
        setenv(name.c_str(), value.c_str(), 1);
}

}  // namespace keystore
