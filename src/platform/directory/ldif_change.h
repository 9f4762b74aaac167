// What a change of an entry means for the bytes of an LDIF file. Pure: facts in, edits or a refusal
// out.
//
// The rules are the server's: values are compared as in matching.h, a second value of a
// single-valued attribute, a text that is not UTF-8 and the removal of a value that names the entry
// are refused. Linear in the entry's values.
#pragma once

#include <string>
#include <vector>

#include "platform/directory/directory.h"
#include "platform/directory/ldif_edit.h"
#include "platform/directory/ldif_file.h"

namespace dl
{

struct LdifChange {
    ModifyResult result = ModifyResult::kDone;
    std::string reason;           // of kRefused
    std::vector<LdifEdit> edits;  // of kDone, in the order of the file
};

// How a file ends, for what is put there.
struct LdifEnd {
    std::uint64_t size = 0;
    bool line_ended = true;  // also true of an empty file
    bool empty_line = true;
    bool crlf = false;
};

LdifChange PlanModify(const LdifRecord& record, const LdifEnd& end,
                      const std::vector<AttributeChange>& changes);
LdifChange PlanAdd(const std::string& dn, const EntryName& name,
                   const std::vector<SearchAttribute>& attributes, const LdifEnd& end);
LdifChange PlanDelete(const LdifRecord& record);

}  // namespace dl
