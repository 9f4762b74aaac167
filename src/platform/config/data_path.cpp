#include "platform/config/data_path.h"

#include "platform/config/config.h"

namespace dl
{

std::string DataPath()
{
    std::string path = GetPrivateProfileString("DlManager", "DbPath", "", 4095, kMainConfig);
    if (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

}  // namespace dl
