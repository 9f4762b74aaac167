#include "lists/data_folder.h"

#include <filesystem>

#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/config/data_path.h"

namespace dl
{

std::string DataFolderName(const std::string& list)
{
    const char* spelled = ListCache().GetSpelling(list);
    if (!spelled || list == spelled || !IsSafeFolderName(list))
        return list;
    std::error_code error;
    return std::filesystem::is_directory(DataPath() + "/" + list, error) ? list : spelled;
}

}  // namespace dl
