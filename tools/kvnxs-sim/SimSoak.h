// Seeded random records for a soak of the agent: valid type ids, random payloads and long random
// text in every field the agent shows. Everything comes from the seed through a generator whose
// output the language fixes, so a seed replays the same bytes on every platform.
#pragma once

#include "SimRecords.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kvsim
{

struct SoakText
{
    const char* name;
    std::size_t offset; // bytes from the record's start
    std::size_t units;  // the field's size in 16-bit units
};

// The texts of a record that the agent keeps, logs or shows; the soak fills each with random units.
std::vector<SoakText> SoakTexts(std::uint32_t id);

class SoakRecords
{
public:
    // skipId: an id left out besides those never drawn (0: none), to look past a known fault.
    SoakRecords(std::uint64_t seed, std::uint32_t skipId);

    // The next record, whole, and one line saying what it holds (id, and each text's length).
    Bytes Next(std::string& summary);

private:
    std::uint32_t Below(std::uint32_t n) { return static_cast<std::uint32_t>(m_rng() % n); }
    std::uint32_t Word();
    std::size_t FillText(Bytes& rec, std::size_t offset, std::size_t units, const char* name,
                         std::string& summary);

    std::mt19937_64 m_rng;
    std::vector<std::uint32_t> m_ids;
};

} // namespace kvsim
