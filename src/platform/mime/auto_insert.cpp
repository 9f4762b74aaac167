#include "platform/mime/mime.h"
#include "platform/queue/queue.h"

namespace dl
{

bool AutoInsertForDL(unsigned long id, const std::string& text_file, const std::string& html_file)
{
    return InsertDisclaimers(GetMQPathName(id, ".msg"), text_file, html_file);
}

}  // namespace dl
