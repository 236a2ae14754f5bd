// qltfs info: what the library loaded at start-up.
#include <iostream>

#include "commands.h"

void AddInfoCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("info", "Show the settings, drives and companion libraries the library found");
  cmd->callback([] { std::cout << "qltfsdk\n"; });
}
