// The simulator's script: one command a line. Parsing is separate from running, so a script file
// is checked whole before the agent is touched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvsim
{

struct Command
{
    std::string verb;                                         // empty for a blank or comment line
    std::vector<std::string> args;                            // positional arguments, already validated
    std::vector<std::pair<std::string, std::string>> options; // key=value, validated
    int line = 0;

    bool Has(std::size_t i) const { return i < args.size(); }
    const std::string& Arg(std::size_t i) const; // "" when absent
    std::uint32_t U32(std::size_t i, std::uint32_t def = 0) const;
    std::int32_t I32(std::size_t i, std::int32_t def = 0) const;
    const std::string* Option(std::string_view key) const;
    std::uint32_t OptionU32(std::string_view key, std::uint32_t def = 0) const;
};

// Parses one line. False with a message on a malformed line; a blank or comment ("#") line
// gives an empty verb.
bool ParseCommand(std::string_view line, int lineNo, Command& out, std::string& error);

// Parses a whole script; every bad line is reported ("line N: ...") and the result is false.
bool ParseScript(std::string_view text, std::vector<Command>& out, std::vector<std::string>& errors);

// A message id given as a number or by name: "50005", "MSG_TYPE_TRAYICON_DESKTOP_STATE", or
// without the "MSG_TYPE_" or "MSG_TYPE_TRAYICON_" prefix, case and '-'/'_' ignored.
bool ResolveMessageId(std::string_view text, std::uint32_t& id);

// Permission answers by word: allow, deny, timeout, withdrawn, nobody; "any" gives 0.
bool ResolvePermissionAnswer(std::string_view text, std::uint32_t& code);

// One line per command, for --help and the interactive prompt.
std::string ScriptHelp();

} // namespace kvsim
