// dlctl store: init.

#include <cstdio>

#include "platform/config/config.h"
#include "platform/store/store.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr std::size_t kPathSize = 4096;

int InitStore()
{
    const std::string folder =
        GetPrivateProfileString("MsgStore", "HomeDir", "", kPathSize, kGatewayConfig);
    if (folder.empty())
        return Complain(kExitFailed, "%s does not say where: set HomeDir in section [MsgStore]",
                        ConfigPath(kGatewayConfig).c_str());
    std::string reason;
    if (!MakeStoreTemplate(folder, &reason))
        return Complain(kExitFailed, "%s", reason.c_str());
    std::printf("%s holds the template of new folders\n", folder.c_str());
    return kExitOk;
}

}  // namespace

void AddStoreCommands(CLI::App* program, int* status)
{
    CLI::App* store =
        program->add_subcommand("store", "The message store, into which spam is filed");
    store->require_subcommand(1);
    store
        ->add_subcommand("init",
                         "Makes the template of new folders in MsgStore/HomeDir of qvmta.ini; "
                         "files that are there stay as they are")
        ->callback([status] { *status = InitStore(); });
}

}  // namespace dl
