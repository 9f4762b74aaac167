#include "requests/text_message.h"

#include "requests/incoming.h"

namespace dl
{

bool WriteTextHeaders(GeneratedMessage& message, const std::string& from, const std::string& to)
{
    return message.Print("From: %s\r\n", OneLine(from).c_str()) &&
           message.Print("Reply-To: %s\r\n", OneLine(from).c_str()) &&
           message.Print("To: %s\r\n", OneLine(to).c_str()) &&
           message.Print("Mime-version: 1.0\r\n") && message.Print("Content-type: text/plain\r\n");
}

bool AppendTextFile(GeneratedMessage& message, const char* path)
{
    return !path || message.CopyFile(path, kTextBuffer) != GeneratedMessage::Copied::kFailed;
}

}  // namespace dl
