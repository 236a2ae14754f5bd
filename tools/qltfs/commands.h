// Sub-commands of the qltfs tool. Each Add*Command registers one command on
// the application; its callback runs the command and throws CLI::RuntimeError
// with a non-zero code (after printing one line to stderr) on failure.
#ifndef QLTFS_TOOL_COMMANDS_H
#define QLTFS_TOOL_COMMANDS_H

#include <CLI/CLI.hpp>

void AddInfoCommand(CLI::App& app);
void AddCopyCommand(CLI::App& app);
void AddWriteCommand(CLI::App& app);
void AddReadCommand(CLI::App& app);
void AddExistsCommand(CLI::App& app);

#endif  // QLTFS_TOOL_COMMANDS_H
