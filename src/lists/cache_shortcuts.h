// One-line shortcuts into the process's list cache; results as of dllist.
#pragma once

#include "lists/dllist.h"

namespace dl
{

[[nodiscard]] inline long GetDigestSize(const std::string& list)
{
    return ListCache().GetDigestSize(list);
}
[[nodiscard]] inline const char* GetSubscribeTextFile(const std::string& list)
{
    return ListCache().GetSubscribeTextFile(list);
}
[[nodiscard]] inline const char* GetUnsubscribeTextFile(const std::string& list)
{
    return ListCache().GetUnsubscribeTextFile(list);
}
[[nodiscard]] inline const char* GetWelcomeTextFile(const std::string& list)
{
    return ListCache().GetWelcomeTextFile(list);
}
[[nodiscard]] inline const char* GetDisclaimerFile(const std::string& list)
{
    return ListCache().GetDisclaimerFile(list);
}
[[nodiscard]] inline const char* GetDisclaimerHTMLFile(const std::string& list)
{
    return ListCache().GetDisclaimerHTMLFile(list);
}

}  // namespace dl
