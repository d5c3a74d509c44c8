#include "SimCut.h"

#include "KvServiceMessages.h"

#include <set>

namespace kvsim
{

namespace
{

constexpr std::size_t kChatUnits = 300;

} // namespace

std::vector<CutPiece> CutStream(const std::string& folder)
{
    return {
        {"version", "", sizeof(MSG_VERSION)},
        {"init", "", sizeof(MSG_TRAYICON_INIT)},
        {"settings", "", sizeof(MSG_TRAYICON_SETTINGS)},
        {"effects", "effects 0x40", sizeof(MSG_TRAYICON_DESKTOP_EFFECTS)},
        {"sft-init", "sft-init kvsim-cut-none " + folder + "cut.ini " + folder + "cut.dat",
         sizeof(MSG_TRAYICON_SFT_INIT_TEMP)},
        {"sft-drop", "sft-drop 7 name=alice", sizeof(MSG_TRAYICON_SFT_DROP_CLIENT)},
        {"reverse", "reverse 102", sizeof(MSG_REVERSE_CONNECTION)},
        {"chat", "chat alice units=" + std::to_string(kChatUnits), sizeof(MSG_CHAT_MESSAGE) + 2 * kChatUnits},
    };
}

std::vector<std::size_t> CutPoints(const std::vector<CutPiece>& stream)
{
    std::size_t total = 0;
    for (const CutPiece& p : stream)
        total += p.size;
    std::set<std::size_t> points;
    std::size_t start = 0;
    for (const CutPiece& p : stream)
    {
        for (std::size_t k : {std::size_t{0}, std::size_t{1}, std::size_t{3}, std::size_t{4}, std::size_t{5}})
            points.insert(start + k);
        points.insert(start + p.size - 1);
        const std::size_t spread = 2 + 160 * p.size / total;
        for (std::size_t i = 1; i <= spread; ++i)
            points.insert(start + p.size * i / (spread + 1));
        start += p.size;
    }
    return {points.begin(), points.end()};
}

std::size_t CutPieceEnd(const std::vector<CutPiece>& stream, const std::string& name)
{
    std::size_t end = 0;
    for (const CutPiece& p : stream)
    {
        end += p.size;
        if (name == p.name)
            break;
    }
    return end;
}

std::string CutWhere(const std::vector<CutPiece>& stream, std::size_t offset)
{
    std::size_t start = 0;
    for (const CutPiece& p : stream)
    {
        if (offset < start + p.size || &p == &stream.back())
            return std::string(p.name) + "+" + std::to_string(offset - start);
        start += p.size;
    }
    return "?";
}

} // namespace kvsim
