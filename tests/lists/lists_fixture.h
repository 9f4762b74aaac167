// A directory of lists in one LDIF file, and what the cache logs of it.
#pragma once

#include <string>
#include <vector>

#include "lists/dllist.h"
#include "tests/support/failing_directory.h"
#include "tests/support/fixture.h"

namespace dl::testing
{

// LDIF of one list, with further "name: value" lines. `dn` tells entries of the same address apart.
[[nodiscard]] std::string List(const std::string& address, const std::string& attributes = "",
                               const std::string& dn = "");

class ListsFixture : public Fixture
{
 protected:
    ListsFixture();

    // Replaces the directory's content.
    void Directory(const std::string& ldif);
    // "<level> <text>" of the service's own lines since the last call, one a line.
    std::string Logged();
    // The names of all lists, by the list cursor.
    [[nodiscard]] static std::string Names(dllist* lists);
    // All members of `list` of one mode, by that mode's cursor.
    [[nodiscard]] static std::string Members(dllist* lists, const std::string& list,
                                             const std::string& mode);

    FailingDirectory directory;
    dllist cache;
};

}  // namespace dl::testing
