// qltfs: a command-line tool over the qltfsdk library.
#include <CLI/CLI.hpp>

#include "commands.h"

int main(int argc, char** argv) {
  CLI::App app{"qltfs - file I/O services for very large files"};
  app.require_subcommand(1);
  AddInfoCommand(app);
  AddCopyCommand(app);
  CLI11_PARSE(app, argc, argv);
  return 0;
}
