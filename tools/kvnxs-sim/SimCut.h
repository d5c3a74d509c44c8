// The link-cut suite's plan: what the simulator sends from the version record on, record by record,
// and the byte offsets after which it cuts the link (ServerOptions::cutAfterBytes).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kvsim
{

struct CutPiece
{
    const char* name;
    std::string line; // the script line that sends it; empty for the handshake's own records
    std::size_t size;
};

// The handshake, a desktop-effects mask, the transfer's two temporary files in folder (given with
// forward slashes and a trailing one), a drop window for viewer 7, a 41,164-byte reverse-connection
// result and a chat message.
std::vector<CutPiece> CutStream(const std::string& folder);

// Every record's first bytes (its id cut anywhere, then whole) and its last byte, then points spread
// over each record in proportion to its size: 220 in all.
std::vector<std::size_t> CutPoints(const std::vector<CutPiece>& stream);

// The offset just past the named record: a cut there or later has delivered it whole.
std::size_t CutPieceEnd(const std::vector<CutPiece>& stream, const std::string& name);

// "record+offset within it" for a cut point.
std::string CutWhere(const std::vector<CutPiece>& stream, std::size_t offset);

} // namespace kvsim
