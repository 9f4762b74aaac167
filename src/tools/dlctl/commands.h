// The verbs of dlctl, one file for each group. Each adds its commands to the program's command
// line; a chosen command sets the exit status: 0 done, 1 failed, 2 nothing found; 64 is wrong
// usage.
#pragma once

#include <CLI/CLI.hpp>

namespace dl
{

void AddStatusCommands(CLI::App* program, int* status);
void AddCheckCommands(CLI::App* program, int* status);
void AddExplainCommands(CLI::App* program, int* status);
void AddMetricsCommands(CLI::App* program, int* status);
void AddQueueCommands(CLI::App* program, int* status);
void AddListCommands(CLI::App* program, int* status);
void AddMemberCommands(CLI::App* program, int* status);
void AddArchiveCommands(CLI::App* program, int* status);
void AddStoreCommands(CLI::App* program, int* status);
void AddSpamCommands(CLI::App* program, int* status);
void AddDirectoryCommands(CLI::App* program, int* status);
// The examples in the help of all commands; comes last.
void AddExamples(CLI::App* program);

}  // namespace dl
