#include "tools/dlsend/relay_settings.h"

#include <algorithm>

#include "platform/address/address.h"
#include "platform/config/config.h"

namespace dl
{
namespace
{

constexpr char kSection[] = "Relay";
constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kSpread = 4;  // a delay is off by up to a quarter

std::string Text(const char* key, const char* fallback)
{
    return GetPrivateProfileString(kSection, key, fallback, 4096, kMainConfig);
}

int Number(const char* key, int fallback, int least, int most)
{
    return std::clamp(GetPrivateProfileInt(kSection, key, fallback, kMainConfig), least, most);
}

std::chrono::milliseconds Seconds(const char* key, int fallback)
{
    return std::chrono::seconds(Number(key, fallback, 1, 86400));
}

// A name as it may stand in a command and in a header.
std::string HostName(const std::string& name)
{
    const bool usable =
        !name.empty() && name.size() <= 255 && std::all_of(name.begin(), name.end(), [](char c) {
            return c > ' ' && c < '\x7f' && c != '<' && c != '>' && c != '"';
        });
    return usable ? name : "localhost";
}

std::string GatewayName()
{
    const auto part = [](const char* key) {
        return GetPrivateProfileString("Connection", key, "", 128, kMainConfig);
    };
    const std::string host = part("GatewayHostName");
    const std::string domain = part("GatewayDomain");
    return HostName(host.empty() || domain.empty() ? host + domain : host + "." + domain);
}

}  // namespace

RelaySettings ReadRelaySettings()
{
    RelaySettings settings;
    smtp::Relay& relay = settings.relay;
    settings.host_name = GatewayName();
    relay.host = Text("Host", "127.0.0.1");
    relay.port = Number("Port", 25, 1, 65535);
    relay.socket = Text("Socket", "");
    relay.lmtp = EqualNoCase(Text("Protocol", "smtp"), "lmtp");
    const std::string helo = Text("HeloName", "");
    relay.helo = helo.empty() ? settings.host_name : HostName(helo);
    relay.connect_timeout = Seconds("ConnectTimeOut", 30);
    relay.answer_timeout = Seconds("AnswerTimeOut", 300);
    relay.data_timeout = Seconds("DataTimeOut", 600);
    settings.channel = Text("Channel", kOutputChannel);
    settings.max_recipients = static_cast<std::size_t>(Number("MaxRecipients", 100, 1, 10'000));
    settings.connections = Number("Connections", 4, 1, 50);
    settings.give_up_after = Number("GiveUpAfter", 5, 0, 365) * kDay;
    settings.retry_min = Number("RetryMin", 60, 1, 86400);
    settings.retry_max =
        std::max<std::int64_t>(Number("RetryMax", 3600, 1, 7 * 86400), settings.retry_min);
    return settings;
}

std::string RelayName(const smtp::Relay& relay)
{
    return relay.socket.empty() ? relay.host + ":" + std::to_string(relay.port) : relay.socket;
}

std::int64_t RetryDelay(const RelaySettings& settings, int tries, std::uint32_t random)
{
    std::int64_t delay = settings.retry_min;
    for (int i = 0; i < tries && delay < settings.retry_max; ++i)
        delay *= 2;
    delay = std::min(delay, settings.retry_max);
    const std::int64_t spread = delay / kSpread;
    return std::max<std::int64_t>(1, delay - spread + random % (2 * spread + 1));
}

std::int64_t LongestRetryDelay(const RelaySettings& settings)
{
    return settings.retry_max + settings.retry_max / kSpread;
}

}  // namespace dl
