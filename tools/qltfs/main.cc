// qltfs: a command-line tool over the qltfsdk library.
#include <CLI/CLI.hpp>
#include <iostream>
#include <new>

#include "commands.h"
#include "text.h"

int main(int argc, char** argv) {
  CLI::App app{"qltfs - file I/O services for very large files"};
  app.require_subcommand(1);
  AddInfoCommand(app);
  AddCopyCommand(app);
  AddWriteCommand(app);
  AddReadCommand(app);
  AddExistsCommand(app);
  try {
    // Names reach the commands as UTF-8 on every system: on Windows argv
    // holds them in the ANSI code page and loses what it cannot show, so
    // they are read again from the wide command line.
    char** ppszArgs = QltUtf8Arguments(&argc, argv);
    app.parse(argc, ppszArgs);
  } catch (const CLI::Success& e) {  // --help and friends
    return app.exit(e);
  } catch (const CLI::RuntimeError& e) {  // a command failed and has said why
    return e.get_exit_code();
  } catch (const CLI::ParseError& e) {
    std::cerr << "qltfs: " << e.what() << " (see qltfs --help)\n";
    return 2;
  } catch (const std::bad_alloc&) {
    std::cerr << "qltfs: not enough memory\n";
    return 1;
  } catch (const std::exception& e) {  // no thread, ...
    std::cerr << "qltfs: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
