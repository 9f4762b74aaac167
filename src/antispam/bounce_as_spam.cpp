#include "antispam/bounce_as_spam.h"

#include "platform/mime/bounce_mime_message.h"

namespace dl
{
namespace
{

constexpr int kBounceFlag = 128;

}  // namespace

bool BounceAsSpam(const std::string& sender, const std::string& refused, const std::string& path,
                  const std::string& reason)
{
    BounceDescription description;
    description.recipient = sender;
    description.type = "DSN";
    description.flag = kBounceFlag;
    description.refused = refused;
    return BounceMimeMessage(path.substr(0, path.rfind('.')), description, {reason}) == 0;
}

}  // namespace dl
