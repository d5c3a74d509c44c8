// The median the benchmarks report: a busy moment of the shared machine spoils a few rounds, not
// the figure.
#pragma once

#include <algorithm>
#include <vector>

inline double Median(std::vector<double> v)
{
    if (v.empty())
        return 0.0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}
