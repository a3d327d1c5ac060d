// What mcicmd tells a user about the driver's commands: read from the
// command table the driver itself hands to the multimedia layer, so that the
// help lists exactly what command strings can say.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace mcicmd
{

struct CommandParam {
    std::string keyword;            // empty for an unnamed string (a file name)
    WORD type = 0;                  // MCI_FLAG, MCI_INTEGER, MCI_STRING, MCI_RECT, MCI_CONSTANT
    std::vector<std::string> items; // a constant's items reachable by name
};

struct CommandInfo {
    std::string name;
    WORD returns = 0; // 0, or the return type (1 string, 2 integer, 7 rectangle)
    std::vector<CommandParam> params;
};

// Reads the command table resource `resource` of `module` as the command-string
// parser walks it: a constant's items end at its end-constant or end-command
// entry, and an item stored as a head entry is the last one reachable by name.
// Empty when the module has no such table.
std::vector<CommandInfo> ReadCommandTable(HMODULE module, LPCWSTR resource);

// The whole help text for the commands (`only` empty), or for one command;
// empty when `only` names no command.
std::string DescribeCommands(const std::vector<CommandInfo> &commands, const std::string &only);

} // namespace mcicmd
