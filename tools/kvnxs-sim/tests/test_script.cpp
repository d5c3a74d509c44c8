// The script parser: what a line turns into, and every way a line is refused.
#include "SimScript.h"

#include <gtest/gtest.h>

namespace
{

kvsim::Command Parse(const std::string& line)
{
    kvsim::Command cmd;
    std::string error;
    EXPECT_TRUE(kvsim::ParseCommand(line, 1, cmd, error)) << line << ": " << error;
    return cmd;
}

} // namespace

// Options, quoted texts and message names are read in every end-to-end script; these are the rest.
TEST(ScriptParser, VerbsAnyCaseEscapesInQuotesAndEqualsInFreeText)
{
    EXPECT_EQ("connect", Parse("CONNECT alice").verb);
    EXPECT_EQ("hello there 1+1=2 a=b", Parse("  chat bob   hello   there 1+1=2 a=b ").Arg(1));
    EXPECT_EQ("two  blanks\n\"q\"", Parse("chat bob \"two  blanks\\n\\\"q\\\"\"").Arg(1));
    EXPECT_TRUE(Parse("# a comment \"with an open quote").verb.empty());
}

// A line read loosely could let an end-to-end check pass unseen; a bad argument of a step that
// sends something shows in what the agent then does.
TEST(ScriptParser, MalformedLinesAreRefusedWithAReason)
{
    const std::pair<const char*, const char*> cases[] = {
        {"conect alice", "unknown command"},           {"connect alice colour=red", "no option"},
        {"connect alice id=1 id=2", "twice"},          {"chat bob \"unfinished", "quote"},
        {"expect NO_SUCH_MESSAGE", "no such message"}, {"expect-permission maybe", "allow"},
        {"expect-invite update", "create or delete"},
    };
    for (const auto& [line, reason] : cases)
    {
        kvsim::Command cmd;
        std::string error;
        EXPECT_FALSE(kvsim::ParseCommand(line, 1, cmd, error)) << line;
        EXPECT_NE(std::string::npos, error.find(reason)) << line << ": " << error;
    }

    // A whole script names every bad line by its number.
    std::vector<kvsim::Command> commands;
    std::vector<std::string> errors;
    EXPECT_FALSE(
        kvsim::ParseScript("connect alice\r\n\nbogus\n# fine\nwait\nexpect 50005\n", commands, errors));
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ(0u, errors[0].find("line 3:"));
    EXPECT_EQ(0u, errors[1].find("line 5:"));
    ASSERT_EQ(2u, commands.size());
    EXPECT_EQ(6, commands[1].line);
}
