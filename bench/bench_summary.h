// One row of the table scripts/run-bench.sh prints once every program has run: a figure, what it is
// compared with in the same run, and the ratio of the two. The rows go, tab-separated, to the file
// KVNXST_BENCH_SUMMARY names; without it, nowhere. A later row of the same name replaces an earlier.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// Whole numbers from 100 up, three significant digits below.
inline std::string SummaryFigure(double value, const char* unit)
{
    char sz[64];
    std::snprintf(sz, sizeof sz, value >= 100 || value <= -100 ? "%.0f %s" : "%.3g %s", value, unit);
    return sz;
}

inline void SummaryRow(const std::string& what, double figure, const std::string& comparison, double compared,
                       const char* unit)
{
    const char* szFile = std::getenv("KVNXST_BENCH_SUMMARY");
    if (szFile == nullptr || *szFile == '\0')
        return;
    if (FILE* f = std::fopen(szFile, "a"))
    {
        std::fprintf(f, "%s\t%s\t%s\t%s\t%s\n", what.c_str(), SummaryFigure(figure, unit).c_str(),
                     comparison.c_str(), SummaryFigure(compared, unit).c_str(),
                     compared > 0 ? SummaryFigure(figure / compared, "x").c_str() : "n/a");
        std::fclose(f);
    }
}
