#include "tests/support/fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "platform/config/config.h"

namespace dl::testing
{

CapturedLog::CapturedLog() : before_(SetLogSink(this)) {}

CapturedLog::~CapturedLog()
{
    SetLogSink(before_);
    for (const Line& line : errors_) {
        bool announced = false;
        for (const std::string& part : expected_)
            announced = announced || line.text.find(part) != std::string::npos;
        EXPECT_TRUE(announced) << "unannounced level 1 line: " << line.text;
    }
    for (const std::string& part : expected_) {
        bool came = false;
        for (const Line& line : errors_)
            came = came || line.text.find(part) != std::string::npos;
        EXPECT_TRUE(came) << "announced level 1 line did not come: " << part;
    }
}

void CapturedLog::Write(int level, const char* module, const std::string& escaped)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back({level, module, escaped});
    if (level <= 1)
        errors_.push_back(lines_.back());
}

bool CapturedLog::Has(int level, std::string_view text) const
{
    for (const Line& line : Lines())
        if (line.level == level && line.text == text)
            return true;
    return false;
}

bool CapturedLog::HasPart(std::string_view part) const
{
    for (const Line& line : Lines())
        if (line.text.find(part) != std::string::npos)
            return true;
    return false;
}

std::vector<CapturedLog::Line> CapturedLog::Lines() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

std::vector<std::string> CapturedLog::Texts(int level) const
{
    std::vector<std::string> texts;
    for (const Line& line : Lines())
        if (line.level <= level)
            texts.push_back(std::to_string(line.level) + " " + line.text);
    return texts;
}

void CapturedLog::Clear()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
}

void CapturedLog::ExpectError(const std::string& part)
{
    expected_.push_back(part);
}

namespace
{

std::filesystem::path MakeFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "dltest.XXXXXX").string();
    if (!mkdtemp(name.data()))
        throw std::runtime_error("no temp folder");
    return name;
}

}  // namespace

Fixture::Fixture() : folder_(MakeFolder()), scoped_clock_(&clock)
{
    if (const char* zone = std::getenv("TZ")) {
        had_zone_ = true;
        zone_before_ = zone;
    }
    SetZone("UTC0");
    std::filesystem::create_directories(folder_ / "conf");
    SetConfigFolder((folder_ / "conf").string());
}

Fixture::~Fixture()
{
    SetConfigFolder("");
    if (had_zone_)
        setenv("TZ", zone_before_.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string Fixture::Path(const std::string& name) const
{
    return (folder_ / name).string();
}

std::string Fixture::Write(const std::string& name, std::string_view bytes)
{
    const std::filesystem::path path = folder_ / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    return path.string();
}

void Fixture::Configure(const std::string& text)
{
    Write("conf/qvms.conf", text);
}

void Fixture::SetZone(const std::string& zone)
{
    setenv("TZ", zone.c_str(), 1);
    tzset();
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::set<std::string> FileNames(const std::string& folder)
{
    std::set<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(folder, missing))
        names.insert(entry.path().filename());
    return names;
}

std::string DataPath(const std::string& name)
{
    return std::string(DL_TEST_DATA) + "/" + name;
}

std::vector<DataBlock> ReadBlocks(const std::string& file)
{
    std::vector<DataBlock> blocks;
    std::istringstream in(ReadFile(DataPath(file)));
    bool wants = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("== ")) {
            blocks.push_back({line.substr(3), "", ""});
            wants = false;
        } else if (line == "->") {
            wants = true;
        } else if (!blocks.empty()) {
            std::string& text = wants ? blocks.back().want : blocks.back().in;
            for (std::size_t at = 0; (at = line.find("\\0", at)) != std::string::npos; ++at)
                line.replace(at, 2, 1, '\0');
            if (line.ends_with('\\'))
                text.append(line, 0, line.size() - 1);
            else
                text += line + "\n";
        }
    }
    EXPECT_FALSE(blocks.empty()) << file;
    return blocks;
}

namespace
{

// The '}' of a repeated text, behind those of texts repeated within it.
std::size_t EndOfRepeated(std::string_view text, std::size_t at)
{
    for (int depth = 0; at < text.size(); ++at) {
        if (text.substr(at).starts_with("\\{"))
            ++depth;
        else if (text[at] == '}' && depth-- == 0)
            break;
    }
    return at;
}

}  // namespace

std::string Unescaped(std::string_view text)
{
    static const std::map<char, char> kLetters = {
        {'r', '\r'}, {'n', '\n'}, {'t', '\t'}, {'0', '\0'}};
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        const char letter = text[at] == '\\' && at + 1 < text.size() ? text[at + 1] : ' ';
        if (letter == ' ') {
            out += text[at++];
        } else if (letter == 'x') {
            out += static_cast<char>(std::stoi(std::string(text.substr(at + 2, 2)), nullptr, 16));
            at += 4;
        } else if (letter == '{') {
            const std::size_t blank = text.find(' ', at);
            const std::size_t end = EndOfRepeated(text, blank);
            const std::string part = Unescaped(text.substr(blank + 1, end - blank - 1));
            for (int i = std::stoi(std::string(text.substr(at + 2))); i > 0; --i)
                out += part;
            at = end + 1;
        } else {
            const auto found = kLetters.find(letter);
            if (letter != '-')
                out += found == kLetters.end() ? letter : found->second;
            at += 2;
        }
    }
    return out;
}

std::vector<std::vector<std::string>> ReadTable(const std::string& file, const std::string& section)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(ReadFile(DataPath(file)));
    bool inside = section.empty();
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("== "))
            inside = line.substr(3) == section;
        if (!inside || line.empty() || line.starts_with('#') || line.starts_with("== "))
            continue;
        std::vector<std::string>& fields = rows.emplace_back();
        for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
            end = line.find(" | ", at);
            fields.push_back(Unescaped(std::string_view(line).substr(at, end - at)));
        }
    }
    EXPECT_FALSE(rows.empty()) << file << " " << section;
    return rows;
}

int FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    close(fd);
    return port;
}

std::string Crlf(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c == '\n')
            out += '\r';
        out += c;
    }
    return out;
}

}  // namespace dl::testing
