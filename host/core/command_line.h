// The programs' command lines: CLI11, with a usage error reported the same way everywhere. Only
// main() files include this (CLI11 is a heavy header).
#pragma once

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

// The command as typed: the program's name and the subcommands parsed, outermost first.
inline std::string command_path(const CLI::App& app) {
  std::string path = app.get_name();
  for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
    at = at->get_subcommands().front();
    path += " " + at->get_name();
  }
  return path;
}

// Parses the command line. -1 when the program goes on; otherwise the status to exit with: 0
// after --help, 2 after one line naming the mistake and a pointer to that command's --help.
inline int parse_command_line(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return -1;
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0)
      return app.exit(e);
    std::fprintf(stderr, "%s: %s\nRun '%s --help' for usage.\n", app.get_name().c_str(), e.what(),
                 command_path(app).c_str());
    return 2;
  }
}
