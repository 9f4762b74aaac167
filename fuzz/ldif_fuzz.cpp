// Any bytes as an LDIF file and as a filter: reading ends, and a change of a sound file leaves a
// sound file that differs in the changed value only.
#include <cstdio>
#include <cstdlib>

#include "platform/directory/filter.h"
#include "platform/directory/ldif_change.h"

namespace
{

using dl::LdifReader;
using dl::LdifRecord;

struct File {
    bool sound = false;
    std::vector<LdifRecord> records;
    dl::LdifEnd end;
};

File Read(const std::string& bytes)
{
    // fmemopen takes no empty buffer.
    std::FILE* stream = bytes.empty()
                            ? std::fopen("/dev/null", "rb")
                            : fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb");
    if (!stream)
        std::abort();
    File file;
    {
        LdifReader reader(stream);
        LdifRecord record;
        LdifReader::Result result{};
        while ((result = reader.Next(&record)) == LdifReader::Result::kRecord)
            file.records.push_back(std::move(record));
        file.sound = result == LdifReader::Result::kEnd;
        file.end = {reader.Size(), reader.EndsWithLineEnd(), reader.EndsWithEmptyLine(),
                    reader.FirstLineIsCrlf()};
    }
    std::fclose(stream);
    return file;
}

std::string Apply(const std::string& bytes, const dl::LdifChange& change)
{
    std::string out;
    std::size_t at = 0;
    for (const dl::LdifEdit& edit : change.edits) {
        if (edit.begin < at || edit.end < edit.begin || edit.end > bytes.size())
            std::abort();
        out += bytes.substr(at, edit.begin - at) + edit.text;
        at = edit.end;
    }
    return out + bytes.substr(at);
}

void Check(bool holds)
{
    if (!holds)
        std::abort();
}

// Adds a value to a record and takes it out again.
void ChangeAndBack(const std::string& bytes, const File& file, std::size_t which)
{
    using Operation = dl::AttributeChange::Operation;
    const std::string name = "listmember";
    const std::string value = "Digest;fuzz@example.org";
    const dl::LdifChange add =
        PlanModify(file.records[which], file.end, {{Operation::kAdd, name, value}});
    if (add.result != dl::ModifyResult::kDone)
        return;
    const std::string with = Apply(bytes, add);
    const File changed = Read(with);
    Check(changed.sound && changed.records.size() == file.records.size());
    for (std::size_t i = 0; i < file.records.size(); i++)
        Check(changed.records[i].lines.size() == file.records[i].lines.size() + (i == which));
    const dl::LdifChange remove =
        PlanModify(changed.records[which], changed.end, {{Operation::kDelete, name, value}});
    Check(remove.result == dl::ModifyResult::kDone);
    const std::string back = Apply(with, remove);
    // A last line that had no end has one now.
    Check(back == bytes || back == bytes + "\n" || back == bytes + "\r\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const File file = Read(bytes);
    const std::optional<dl::Filter> filter = dl::Filter::Parse(bytes);
    for (std::size_t i = 0; i < file.records.size() && i < 8; i++) {
        if (filter)
            (void)filter->Matches(file.records[i].lines);
        if (file.sound) {
            ChangeAndBack(bytes, file, i);
            const File rest = Read(Apply(bytes, dl::PlanDelete(file.records[i])));
            Check(rest.sound && rest.records.size() == file.records.size() - 1);
        }
    }
    return 0;
}
