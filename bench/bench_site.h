// What the programs here stand on: a site of their own, a clock, the peak of this process's memory.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/config/config.h"
#include "platform/log/log.h"

namespace dl::bench
{

using SteadyClock = std::chrono::steady_clock;

inline void Need(bool ok, const char* what)
{
    if (ok)
        return;
    std::fprintf(stderr, "bench: %s failed\n", what);
    std::exit(1);
}

inline double MillisecondsSince(SteadyClock::time_point begin)
{
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - begin).count();
}

// Peak resident memory of this process since its start, or since ForgetPeak, in MiB.
inline double PeakMemory()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0)
            return std::strtod(line.c_str() + 6, nullptr) / 1024;
    return 0;
}

inline void ForgetPeak()
{
    std::ofstream("/proc/self/clear_refs") << "5";  // proc(5): the peak becomes the present size
}

// LDIF of lists "list0@example.org" and so on, each with the same members.
inline std::string ListEntries(int lists, int members)
{
    std::string values;
    for (int m = 0; m < members; ++m)
        values += "listmember: Immediate;member" + std::to_string(m) + "@host" +
                  std::to_string(m % 997) + ".example.com\n";
    std::string text;
    for (int i = 0; i < lists; ++i) {
        const std::string list = "list" + std::to_string(i) + "@example.org";
        text += "dn: mail=" + list + ",dc=example,dc=org\nobjectClass: qvlist\nmail: " + list +
                "\nmode: 0\narchive: 0\n" + values + "\n";
    }
    return text;
}

// The site of one scenario, in a folder of its own, which goes with it.
class Site
{
 public:
    explicit Site(const std::string& ldap_settings)
    {
        const char* base = std::getenv("DL_BENCH_DIR");
        std::string name = std::string(base ? base : "/var/tmp") + "/dlbench.XXXXXX";
        Need(mkdtemp(name.data()) != nullptr, "making a folder");
        folder_ = name;
        Configure(ldap_settings);
        std::filesystem::create_directories(folder_ + "/data/list0@example.org/digest");
        SetConfigFolder(folder_);
        LogSettings log;
        log.target = LogSettings::Target::kFile;
        log.path = folder_ + "/log";
        log.max_bytes = 1'000'000'000;
        std::string error;
        Need(OpenLog(log, "bench", &error), "opening the log");
    }
    ~Site()
    {
        CloseLog();
        std::filesystem::remove_all(folder_);
    }
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    // `ldap_settings`: the lines of section "Ldap".
    void Configure(const std::string& ldap_settings) const
    {
        Write("qvms.conf",
              "[Connection]\nGatewayHostName=mail\nGatewayDomain=example.org\n[DlManager]\n"
              "DbPath=" +
                  folder_ + "/data\n[Queue]\nPath=" + folder_ + "/queue\n[Ldap]\n" + ldap_settings);
    }
    void Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(folder_ + "/" + name, std::ios::binary) << text;
    }
    [[nodiscard]] const std::string& Folder() const { return folder_; }

 private:
    std::string folder_;
};

}  // namespace dl::bench
