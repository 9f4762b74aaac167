#include "requests/mail_identity.h"

#include <ctime>
#include <random>

#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/log/format.h"
#include "platform/mime/mime.h"

namespace dl
{
namespace
{

constexpr std::size_t kInstallationIdSize = 64;
constexpr long kHalfDay = 43200;
constexpr long kDay = 86400;
constexpr long kHour = 3600;

std::string Base36(std::uint64_t number)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), "0123456789abcdefghijklmnopqrstuvwxyz"[number % 36]);
        number /= 36;
    } while (number != 0);
    return digits;
}

std::string MakeInstallationId()
{
    std::string configured = GetPrivateProfileString("DlManager", "InstallationId", "",
                                                     kInstallationIdSize, kMainConfig);
    if (!configured.empty())
        return configured;
    std::random_device random;
    const std::uint64_t bits = static_cast<std::uint64_t>(random()) << 32 | random();
    return Base36(static_cast<std::uint64_t>(NowMicroseconds())) + "-" + Base36(bits);
}

}  // namespace

Gateway ReadGateway()
{
    return {GetPrivateProfileString("Connection", "GatewayHostName", "", 128, kMainConfig),
            GetPrivateProfileString("Connection", "GatewayDomain", "", 128, kMainConfig)};
}

std::string MailDate()
{
    tzset();
    const std::time_t now = Now();
    std::tm local{};
    localtime_r(&now, &local);
    long west = timezone;
    if (local.tm_isdst == 1) {
        west -= kHour;
        if (west < -kHalfDay)
            west += kDay;
    }
    DateRecord date;
    date.year = local.tm_year + 1900;
    date.month = local.tm_mon + 1;
    date.day = local.tm_mday;
    date.hour = local.tm_hour;
    date.minute = local.tm_min;
    date.second = local.tm_sec;
    date.zone_minutes = static_cast<std::int32_t>(-(west / 60));
    return UTC2rfc(date);
}

const std::string& InstallationId()
{
    static const std::string id = MakeInstallationId();
    return id;
}

std::string ReceivedHeader(const Gateway& gateway, const std::string& entry_id,
                           const std::string& date)
{
    return FormatText("Received: from DL manager by %s.%s\r\n  (KVT Quorvane 5.0) id %s; %s\r\n",
                      gateway.host.c_str(), gateway.domain.c_str(), entry_id.c_str(), date.c_str());
}

}  // namespace dl
