#include "SimScript.h"

#include "KvServiceMessages.h"
#include "SimRecords.h"
#include "SimText.h"

#include <cstring>

namespace kvsim
{

namespace
{

enum class Kind
{
    Word,    // one token
    U32,     // unsigned 32-bit number
    I32,     // signed 32-bit number
    Message, // message id or name
    Text,    // the rest of the positional tokens, joined with blanks; may be empty
};

struct ArgForm
{
    const char* name;
    Kind kind;
    bool optional;
};

struct OptionForm
{
    const char* key;
    Kind kind;
};

struct VerbForm
{
    const char* verb;
    std::vector<ArgForm> args;
    std::vector<OptionForm> options;
    bool settingsFields; // options are settings fields
    const char* help;
};

const std::vector<VerbForm>& Verbs()
{
    static const std::vector<VerbForm> verbs = {
        {"connect",
         {{"name", Kind::Word, false}},
         {{"id", Kind::U32},
          {"icon", Kind::U32},
          {"count", Kind::U32},
          {"line2", Kind::Text},
          {"line3", Kind::Text},
          {"button", Kind::U32}},
         false,
         "a viewer connects (40008); id= icon= count= line2= line3= button="},
        {"disconnect",
         {{"name", Kind::Word, false}},
         {{"id", Kind::U32}, {"icon", Kind::U32}, {"count", Kind::U32}},
         false,
         "a viewer disconnects (40009)"},
        {"connect-count",
         {{"count", Kind::U32, true}},
         {{"icon", Kind::U32}},
         false,
         "the number of viewers (40002)"},
        {"notify-all",
         {{"text", Kind::Text, true}},
         {{"count", Kind::U32}},
         false,
         "the viewer list (50001); default: the connected viewers"},
        {"effects",
         {{"mask", Kind::U32, false}},
         {},
         false,
         "desktop-effects mask (50009); the agent must acknowledge with 50005"},
        {"lock-hint", {}, {}, false, "possible lock-state change (50008)"},
        {"chat-open", {{"name", Kind::Word, false}}, {}, false, "open the chat (75000)"},
        {"chat",
         {{"name", Kind::Word, false}, {"text", Kind::Text, true}},
         {{"length", Kind::U32}, {"units", Kind::U32}, {"bytes", Kind::U32}, {"raw-user", Kind::U32}},
         false,
         "a chat message (75001): the text, units=N of mixed-script text or bytes=N of it; length= "
         "announces another length, raw-user=1 leaves the name unterminated"},
        {"chat-close", {}, {}, false, "close the chat (75002)"},
        {"settings", {}, {}, true, "settings (40003) with field=value changes; the agent answers with 50000"},
        {"settings-update", {}, {}, true, "settings update (40007) with field=value changes"},
        {"settings-dialog", {}, {}, false, "open the settings dialog (70020)"},
        {"reconfigure",
         {{"state", Kind::U32, false}, {"text", Kind::Text, true}},
         {},
         false,
         "service reconfiguring (70030)"},
        {"addresses",
         {{"list", Kind::Text, false}},
         {},
         false,
         "the address list (70040), addresses separated by blanks or commas"},
        {"desktop-info", {}, {}, false, "ask for the desktop user information (50000)"},
        {"permission",
         {{"text", Kind::Text, false}},
         {{"af", Kind::U32},
          {"keep", Kind::U32},
          {"deny-default", Kind::U32},
          {"variant", Kind::U32},
          {"type", Kind::U32}},
         false,
         "permission request (70050) and its datagram exchange"},
        {"permission-withdraw", {}, {}, false, "withdraw the open permission request"},
        {"expect-permission",
         {{"answer", Kind::Word, false}, {"timeout", Kind::U32, true}},
         {},
         false,
         "wait for the permission answer: allow deny timeout withdrawn nobody any"},
        {"reverse",
         {{"status", Kind::U32, false}},
         {{"error", Kind::U32},
          {"text", Kind::Text},
          {"short", Kind::U32},
          {"suppress", Kind::U32},
          {"short-text", Kind::Text},
          {"host", Kind::Text},
          {"port", Kind::U32}},
         false,
         "reverse-connection result (70070): 100, 101 or 102"},
        {"sft-drop",
         {{"viewer", Kind::U32, false}},
         {{"value", Kind::U32}, {"name", Kind::Text}, {"event", Kind::Word}, {"list", Kind::Word}},
         false,
         "drop window for a viewer (67001): name= whom it sends to, event= made here and set by the "
         "agent once the files are listed (Windows build), list= the settings file they are listed in"},
        {"expect-reverse",
         {},
         {{"status", Kind::U32},
          {"option", Kind::U32},
          {"join", Kind::U32},
          {"code", Kind::Text},
          {"host", Kind::Text},
          {"port", Kind::U32},
          {"use-proxy", Kind::U32},
          {"proxy-host", Kind::Text},
          {"proxy-port", Kind::U32},
          {"secret", Kind::Text},
          {"timeout", Kind::U32}},
         false,
         "wait for the agent's next reverse-connection request (70070) and compare the fields named "
         "(the record's layout is checked always); status=103 for a cancel"},
        {"expect-sft-files",
         {{"viewer", Kind::U32, false}},
         {{"files", Kind::Text}, {"count", Kind::U32}, {"timeout", Kind::U32}},
         false,
         "wait for the viewer's drop event, then compare the settings file's list: files=\"a|b\" in "
         "order, or only count= (Windows build)"},
        {"sft-init",
         {{"event", Kind::Word, false}, {"ini", Kind::Word, false}, {"data", Kind::Word, false}},
         {},
         false,
         "create the temporary files (67002)"},
        {"sft-delete",
         {{"file", Kind::U32, false}},
         {},
         false,
         "delete a temporary file (67003): 1 settings, 2 data"},
        {"unblock", {}, {}, false, "the read-unblocking message (100000); the agent echoes it"},
        {"exit", {}, {}, false, "ask the agent to exit (40001)"},
        {"raw",
         {{"id", Kind::U32, false}, {"size", Kind::U32, true}},
         {{"fill", Kind::U32}},
         false,
         "any id with a payload of fill bytes (default 0; size bytes in all, default 4)"},
        {"hang-up", {}, {}, false, "the service drops the link: close the connection to the agent"},
        {"soak",
         {{"count", Kind::U32, false}, {"seed", Kind::U32, false}},
         {{"skip", Kind::U32}},
         false,
         "count random records from the seed, each followed by 100000 whose echo must come; skip=ID "
         "leaves that id out"},
        {"invite-text",
         {{"text", Kind::Text, false}},
         {{"length", Kind::U32}},
         false,
         "the invitation text the next creates return (in code page 1252); length=N announces N bytes "
         "instead of its own length"},
        {"invite-error",
         {{"code", Kind::U32, false}, {"text", Kind::Text, true}},
         {},
         false,
         "make the next creates fail with this code and message (0 clears)"},
        {"invite-delete",
         {{"status", Kind::U32, false}, {"count", Kind::U32, false}},
         {},
         false,
         "status and count of the next delete replies"},
        {"invite-silent",
         {{"on", Kind::U32, false}},
         {},
         false,
         "1: the next creates and deletes get no answer (the agent times out); 0: answered again"},
        {"expect-invite",
         {{"kind", Kind::Word, false}},
         {{"name", Kind::Text},
          {"rights", Kind::Word},
          {"expiry", Kind::U32},
          {"password", Kind::Text},
          {"proxy-host", Kind::Text},
          {"proxy-port", Kind::U32},
          {"secret", Kind::Text},
          {"timeout", Kind::U32}},
         false,
         "wait for an invitation exchange, create or delete; for a create, naming any field compares "
         "the whole request byte for byte (rights=ABCDE as digits, e.g. 01001; unnamed fields empty)"},
        {"wait", {{"ms", Kind::U32, false}}, {}, false, "serve the agent for that long"},
        {"expect",
         {{"message", Kind::Message, false}, {"timeout", Kind::U32, true}},
         {},
         false,
         "wait for a record from the agent (default 5000 ms)"},
        {"expect-chat",
         {{"text", Kind::Text, false}},
         {{"timeout", Kind::U32}},
         false,
         "wait for the agent's next chat message (75001) and compare its text; \"a\\r\\nb\" for a "
         "line break; timeout= (ms)"},
        {"expect-closed",
         {{"timeout", Kind::U32, true}},
         {},
         false,
         "wait for the agent to close the connection"},
        {"note", {{"text", Kind::Text, true}}, {}, false, "print a line into the trace"},
    };
    return verbs;
}

const VerbForm* FindVerb(std::string_view verb)
{
    for (const VerbForm& form : Verbs())
        if (verb == form.verb)
            return &form;
    return nullptr;
}

struct Token
{
    std::string key; // set for key=value
    std::string value;
    std::string raw; // the token as written, for text arguments
};

bool IsKeyChar(char c, bool first)
{
    return (c >= 'a' && c <= 'z') || (!first && ((c >= '0' && c <= '9') || c == '-'));
}

bool Tokenize(std::string_view line, std::vector<Token>& out, std::string& error)
{
    std::size_t i = 0;
    while (true)
    {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r' || line[i] == '\n'))
            ++i;
        if (i >= line.size())
            return true;
        Token tok;
        std::string text;
        bool quotedSoFar = false;
        const std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r' && line[i] != '\n')
        {
            const char c = line[i];
            if (c == '"')
            {
                quotedSoFar = true;
                ++i;
                bool closed = false;
                while (i < line.size())
                {
                    char q = line[i++];
                    if (q == '"')
                    {
                        closed = true;
                        break;
                    }
                    if (q == '\\' && i < line.size())
                    {
                        q = line[i++];
                        switch (q)
                        {
                        case 'n':
                            q = '\n';
                            break;
                        case 'r':
                            q = '\r';
                            break;
                        case 't':
                            q = '\t';
                            break;
                        default:
                            break; // \" and \\ and anything else: the character itself
                        }
                    }
                    text.push_back(q);
                }
                if (!closed)
                {
                    error = "unterminated quote";
                    return false;
                }
                continue;
            }
            if (c == '=' && tok.key.empty() && !quotedSoFar && !text.empty())
            {
                bool key = true;
                for (std::size_t k = 0; k < text.size(); ++k)
                    key = key && IsKeyChar(text[k], k == 0);
                if (key)
                {
                    tok.key = text;
                    text.clear();
                    ++i;
                    continue;
                }
            }
            text.push_back(c);
            ++i;
        }
        tok.value = text;
        tok.raw = tok.key.empty() ? text : std::string(line.substr(start, i - start));
        out.push_back(std::move(tok));
    }
}

bool CheckValue(Kind kind, const std::string& value, const char* what, std::string& error)
{
    std::uint32_t u;
    std::int32_t s;
    switch (kind)
    {
    case Kind::U32:
        if (!ParseU32(value, u))
        {
            error = std::string(what) + ": not an unsigned 32-bit number: '" + value + "'";
            return false;
        }
        return true;
    case Kind::I32:
        if (!ParseI32(value, s))
        {
            error = std::string(what) + ": not a 32-bit number: '" + value + "'";
            return false;
        }
        return true;
    case Kind::Message:
        if (!ResolveMessageId(value, u))
        {
            error = std::string(what) + ": no such message: '" + value + "'";
            return false;
        }
        return true;
    default:
        return true;
    }
}

constexpr std::uint32_t kMaxChatBytes = 64u << 20;

// Checks of single verbs beyond the argument kinds.
bool CheckVerb(const Command& cmd, std::string& error)
{
    std::uint32_t v;
    if (cmd.verb == "expect-permission" && !ResolvePermissionAnswer(cmd.Arg(0), v))
    {
        error = "answer must be allow, deny, timeout, withdrawn, nobody or any";
        return false;
    }
    if (cmd.verb == "expect-invite" && cmd.Arg(0) != "create" && cmd.Arg(0) != "delete")
    {
        error = "kind must be create or delete";
        return false;
    }
    if (cmd.verb == "reverse")
    {
        v = cmd.U32(0);
        if (v != KV_REVERSE_DONE && v != KV_REVERSE_STARTED && v != KV_REVERSE_ENDED)
        {
            error = "status must be 100, 101 or 102";
            return false;
        }
    }
    if (cmd.verb == "chat" &&
        cmd.Has(1) + (cmd.Option("units") != nullptr) + (cmd.Option("bytes") != nullptr) != 1)
    {
        error = "give the text, units= or bytes=, one of them";
        return false;
    }
    // Far beyond any bound the agent has, and still quick to build.
    if (cmd.verb == "chat" &&
        (cmd.OptionU32("units") > kMaxChatBytes / 2 || cmd.OptionU32("bytes") > kMaxChatBytes))
    {
        error = "a chat body of at most " + std::to_string(kMaxChatBytes) + " bytes";
        return false;
    }
    if (cmd.verb == "raw" && cmd.Has(1) && cmd.U32(1) < 4)
    {
        error = "size must be at least 4";
        return false;
    }
    if (cmd.verb == "raw" && cmd.OptionU32("fill") > 0xFF)
    {
        error = "fill must be a byte value";
        return false;
    }
    if (cmd.verb == "raw" && cmd.Has(1) && cmd.U32(1) > KV_RECEIVE_BUFFER_BYTES)
    {
        error = "size beyond the agent's receive buffer";
        return false;
    }
    return true;
}

} // namespace

const std::string& Command::Arg(std::size_t i) const
{
    static const std::string empty;
    return i < args.size() ? args[i] : empty;
}

std::uint32_t Command::U32(std::size_t i, std::uint32_t def) const
{
    std::uint32_t v;
    if (i < args.size() && ParseU32(args[i], v))
        return v;
    if (i < args.size() && ResolveMessageId(args[i], v))
        return v;
    return def;
}

std::int32_t Command::I32(std::size_t i, std::int32_t def) const
{
    std::int32_t v;
    return i < args.size() && ParseI32(args[i], v) ? v : def;
}

const std::string* Command::Option(std::string_view key) const
{
    for (const auto& kv : options)
        if (kv.first == key)
            return &kv.second;
    return nullptr;
}

std::uint32_t Command::OptionU32(std::string_view key, std::uint32_t def) const
{
    const std::string* s = Option(key);
    std::uint32_t v;
    return s != nullptr && ParseU32(*s, v) ? v : def;
}

bool ParseCommand(std::string_view line, int lineNo, Command& out, std::string& error)
{
    out = Command();
    out.line = lineNo;
    const std::size_t firstChar = line.find_first_not_of(" \t\r\n");
    if (firstChar == std::string_view::npos || line[firstChar] == '#')
        return true;
    std::vector<Token> tokens;
    if (!Tokenize(line, tokens, error))
        return false;
    const Token& first = tokens[0];
    const VerbForm* form = first.key.empty() ? FindVerb(ToLower(first.value)) : nullptr;
    if (form == nullptr)
    {
        error = "unknown command '" + first.raw + "'";
        return false;
    }
    out.verb = form->verb;
    const bool takesText = !form->args.empty() && form->args.back().kind == Kind::Text;

    std::vector<std::string> positional;
    for (std::size_t t = 1; t < tokens.size(); ++t)
    {
        const Token& tok = tokens[t];
        if (tok.key.empty())
        {
            positional.push_back(tok.value);
            continue;
        }
        Kind kind = Kind::Word;
        bool known = false;
        if (form->settingsFields)
        {
            const SettingsField* field = FindSettingsField(tok.key);
            if (field != nullptr)
            {
                known = true;
                kind = field->units == 0 ? Kind::U32 : Kind::Text;
            }
        }
        for (const OptionForm& opt : form->options)
            if (tok.key == opt.key)
            {
                known = true;
                kind = opt.kind;
            }
        if (!known)
        {
            if (takesText)
            {
                positional.push_back(tok.raw);
                continue;
            }
            error = "'" + out.verb + "' has no option '" + tok.key + "'";
            return false;
        }
        if (out.Option(tok.key) != nullptr)
        {
            error = "option '" + tok.key + "' given twice";
            return false;
        }
        if (!CheckValue(kind, tok.value, tok.key.c_str(), error))
            return false;
        out.options.emplace_back(tok.key, tok.value);
    }

    std::size_t p = 0;
    for (const ArgForm& arg : form->args)
    {
        if (arg.kind == Kind::Text)
        {
            std::string text;
            for (; p < positional.size(); ++p)
                text += (text.empty() ? "" : " ") + positional[p];
            if (text.empty() && !arg.optional)
            {
                error = "'" + out.verb + "' needs " + arg.name;
                return false;
            }
            if (!text.empty() || !arg.optional)
                out.args.push_back(text);
            break;
        }
        if (p >= positional.size())
        {
            if (arg.optional)
                break;
            error = "'" + out.verb + "' needs " + arg.name;
            return false;
        }
        if (!CheckValue(arg.kind, positional[p], arg.name, error))
            return false;
        out.args.push_back(positional[p++]);
    }
    if (p < positional.size())
    {
        error = "'" + out.verb + "': unexpected '" + positional[p] + "'";
        return false;
    }
    return CheckVerb(out, error);
}

bool ParseScript(std::string_view text, std::vector<Command>& out, std::vector<std::string>& errors)
{
    int lineNo = 0;
    std::size_t pos = 0;
    while (pos <= text.size())
    {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos)
            end = text.size();
        ++lineNo;
        Command cmd;
        std::string error;
        if (!ParseCommand(text.substr(pos, end - pos), lineNo, cmd, error))
            errors.push_back("line " + std::to_string(lineNo) + ": " + error);
        else if (!cmd.verb.empty())
            out.push_back(std::move(cmd));
        pos = end + 1;
    }
    return errors.empty();
}

bool ResolveMessageId(std::string_view text, std::uint32_t& id)
{
    if (ParseU32(text, id))
        return KvFindMessage(id) != nullptr;
    std::string want = ToLower(text);
    for (char& c : want)
        if (c == '-')
            c = '_';
    for (const KvMessageInfo& info : KV_MESSAGE_CATALOGUE)
    {
        const std::string name = ToLower(info.pszName);
        if (name == want || name == "msg_type_" + want || name == "msg_type_trayicon_" + want)
        {
            id = info.dwType;
            return true;
        }
    }
    return false;
}

bool ResolvePermissionAnswer(std::string_view text, std::uint32_t& code)
{
    static const std::pair<const char*, std::uint32_t> answers[] = {
        {"allow", KV_PERMISSION_ALLOWED},   {"deny", KV_PERMISSION_DENIED},
        {"timeout", KV_PERMISSION_TIMEOUT}, {"withdrawn", KV_PERMISSION_WITHDRAWN},
        {"nobody", KV_PERMISSION_NOBODY},   {"any", 0},
    };
    const std::string want = ToLower(text);
    for (const auto& a : answers)
        if (want == a.first)
        {
            code = a.second;
            return true;
        }
    return false;
}

std::string ScriptHelp()
{
    std::string out;
    for (const VerbForm& form : Verbs())
    {
        std::string usage = form.verb;
        for (const ArgForm& arg : form.args)
            usage += std::string(" ") + (arg.optional ? "[" : "<") + arg.name + (arg.optional ? "]" : ">");
        if (form.settingsFields)
            usage += " [field=value ...]";
        out += "  " + usage;
        out.append(usage.size() < 34 ? 34 - usage.size() : 1, ' ');
        out += std::string(form.help) + "\n";
    }
    out += "  settings fields:";
    for (const SettingsField& f : SettingsFields())
        out += std::string(" ") + f.name;
    out += "\n";
    return out;
}

} // namespace kvsim
