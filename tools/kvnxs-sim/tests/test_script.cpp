// The script parser: what a line turns into, and every way a line is refused.
#include "SimScript.h"

#include <gtest/gtest.h>

using kvsim::Command;

namespace
{

Command Parse(const std::string& line)
{
    Command cmd;
    std::string error;
    EXPECT_TRUE(kvsim::ParseCommand(line, 1, cmd, error)) << line << ": " << error;
    return cmd;
}

std::string Refusal(const std::string& line)
{
    Command cmd;
    std::string error;
    EXPECT_FALSE(kvsim::ParseCommand(line, 1, cmd, error)) << line;
    return error;
}

} // namespace

TEST(ScriptParser, ArgumentsOptionsAndFreeText)
{
    Command c = Parse("connect alice id=7 line2=\"from 10.0.0.2\" count=2");
    EXPECT_EQ("connect", c.verb);
    ASSERT_EQ(1u, c.args.size());
    EXPECT_EQ("alice", c.Arg(0));
    EXPECT_EQ(7u, c.OptionU32("id"));
    EXPECT_EQ(2u, c.OptionU32("count"));
    ASSERT_NE(nullptr, c.Option("line2"));
    EXPECT_EQ("from 10.0.0.2", *c.Option("line2"));
    EXPECT_EQ(nullptr, c.Option("icon"));
    EXPECT_EQ(5u, c.OptionU32("icon", 5));

    // Free text takes the rest of the line; quotes keep blanks and escapes work inside them.
    c = Parse("  chat bob   hello   there ");
    EXPECT_EQ("hello there", c.Arg(1));
    c = Parse("chat bob \"two  blanks\\n\\\"quoted\\\"\"");
    EXPECT_EQ("two  blanks\n\"quoted\"", c.Arg(1));
    // An equals sign in free text is text unless it names one of the command's options.
    c = Parse("chat bob 1+1=2 a=b");
    EXPECT_EQ("1+1=2 a=b", c.Arg(1));

    c = Parse("permission deny-default=1 Viewer X from 10.1.1.1 af=23");
    EXPECT_EQ("Viewer X from 10.1.1.1", c.Arg(0));
    EXPECT_EQ(1u, c.OptionU32("deny-default"));
    EXPECT_EQ(23u, c.OptionU32("af"));

    c = Parse("EFFECTS 0x1F");
    EXPECT_EQ("effects", c.verb);
    EXPECT_EQ(0x1Fu, c.U32(0));

    c = Parse("settings-update display-time=0 caption=\"Busy service\" language=de");
    EXPECT_EQ(3u, c.options.size());
}

TEST(ScriptParser, OptionalArgumentsAndBlankLines)
{
    Command c = Parse("expect MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK");
    EXPECT_EQ(50005u, c.U32(0));
    EXPECT_FALSE(c.Has(1));
    c = Parse("expect 50007 250");
    EXPECT_EQ(50007u, c.U32(0));
    EXPECT_EQ(250u, c.U32(1));
    EXPECT_FALSE(Parse("notify-all").Has(0));
    EXPECT_TRUE(Parse("# a comment \"with an open quote").verb.empty());
    EXPECT_TRUE(Parse("   ").verb.empty());
    EXPECT_TRUE(Parse("").verb.empty());
}

TEST(ScriptParser, MalformedLinesAreRefusedWithAReason)
{
    EXPECT_NE(std::string::npos, Refusal("conect alice").find("unknown command"));
    EXPECT_NE(std::string::npos, Refusal("connect").find("needs name"));
    EXPECT_NE(std::string::npos, Refusal("chat bob").find("needs text"));
    EXPECT_NE(std::string::npos, Refusal("effects lots").find("number"));
    EXPECT_NE(std::string::npos, Refusal("effects 4294967296").find("number"));
    EXPECT_NE(std::string::npos, Refusal("wait -5").find("number"));
    EXPECT_NE(std::string::npos, Refusal("lock-hint now").find("unexpected"));
    EXPECT_NE(std::string::npos, Refusal("connect alice colour=red").find("no option"));
    EXPECT_NE(std::string::npos, Refusal("connect alice id=1 id=2").find("twice"));
    EXPECT_NE(std::string::npos, Refusal("connect alice id=x").find("number"));
    EXPECT_NE(std::string::npos, Refusal("chat bob \"unfinished").find("quote"));
    EXPECT_NE(std::string::npos, Refusal("expect NO_SUCH_MESSAGE").find("no such message"));
    EXPECT_NE(std::string::npos, Refusal("expect 12345").find("no such message"));
    EXPECT_NE(std::string::npos, Refusal("expect-permission maybe").find("allow"));
    EXPECT_NE(std::string::npos, Refusal("expect-invite update").find("create or delete"));
    EXPECT_NE(std::string::npos, Refusal("reverse 103").find("100, 101 or 102"));
    EXPECT_NE(std::string::npos, Refusal("raw 9 2").find("at least 4"));
    EXPECT_NE(std::string::npos, Refusal("raw 9 50000").find("receive buffer"));
    EXPECT_NE(std::string::npos, Refusal("settings display-time=soon").find("number"));
    EXPECT_NE(std::string::npos, Refusal("settings colour=1").find("no option"));
}

TEST(ScriptParser, WholeScriptReportsEveryBadLineByNumber)
{
    std::vector<Command> commands;
    std::vector<std::string> errors;
    EXPECT_FALSE(
        kvsim::ParseScript("connect alice\n\nbogus\n# fine\nwait\nexpect 50005\n", commands, errors));
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ(0u, errors[0].find("line 3:"));
    EXPECT_EQ(0u, errors[1].find("line 5:"));
    ASSERT_EQ(2u, commands.size());
    EXPECT_EQ(1, commands[0].line);
    EXPECT_EQ(6, commands[1].line);

    commands.clear();
    errors.clear();
    EXPECT_TRUE(kvsim::ParseScript("connect alice\r\nexit\r\n", commands, errors));
    EXPECT_EQ(2u, commands.size());
}

TEST(ScriptParser, MessageNamesResolveWithOrWithoutPrefixes)
{
    std::uint32_t id = 0;
    EXPECT_TRUE(kvsim::ResolveMessageId("MSG_TYPE_TRAYICON_DESKTOP_STATE", id));
    EXPECT_EQ(50007u, id);
    EXPECT_TRUE(kvsim::ResolveMessageId("desktop-state", id));
    EXPECT_EQ(50007u, id);
    EXPECT_TRUE(kvsim::ResolveMessageId("chat_message", id));
    EXPECT_EQ(75001u, id);
    EXPECT_TRUE(kvsim::ResolveMessageId("version", id));
    EXPECT_EQ(4400u, id);
    EXPECT_TRUE(kvsim::ResolveMessageId("70040", id));
    EXPECT_FALSE(kvsim::ResolveMessageId("TRAYICON", id));
    EXPECT_FALSE(kvsim::ResolveMessageId("", id));

    std::uint32_t code = 1;
    EXPECT_TRUE(kvsim::ResolvePermissionAnswer("Withdrawn", code));
    EXPECT_EQ(4444u, code);
    EXPECT_TRUE(kvsim::ResolvePermissionAnswer("any", code));
    EXPECT_EQ(0u, code);
}
