#include "AboutInfoBlock.h"

#include "resource.h"

#include <vector>

std::wstring KvComposeAboutInfo(const KvAboutFacts& facts, const std::function<std::wstring(int)>& label,
                                std::size_t cchMax)
{
    const std::wstring* v = facts.values;
    std::vector<std::wstring> lines;
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE1) + v[0]);
    if (!facts.bOneTime)
    {
        lines.push_back(label(IDS_ABOUT_OPTION_A_LABEL) +
                        label(facts.uOptionA == 0 ? IDS_ABOUT_OPTION_A_CLEAR : IDS_ABOUT_OPTION_A_SET));
        // Option B only means something while option A is clear.
        if (facts.uOptionA == 0)
            lines.push_back(label(IDS_ABOUT_OPTION_B_LABEL) +
                            label(facts.uOptionB == 0 ? IDS_ABOUT_OPTION_B_CLEAR : IDS_ABOUT_OPTION_B_SET));
    }
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE2) + v[1]);
    if (facts.uFlagC != 0)
        lines.push_back(label(IDS_SERVICE_FLAG_NOTE));
    // Values 3 and 4 are lists: they start on a line of their own.
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE3) + (v[2].empty() ? v[2] : L"\r\n" + v[2]));
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE4) + (v[3].empty() ? v[3] : L"\r\n" + v[3]));
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE5) + (v[4].empty() ? label(IDS_ABOUT_VALUE5_NONE) : v[4]));
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE6) + v[5]);
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE7) + v[6]);
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE8) + v[7]);
    lines.push_back(label(IDS_ABOUT_LABEL_VALUE9) + v[8]);

    std::wstring block;
    for (std::size_t i = 0; i < lines.size(); ++i)
        block += (i == 0 ? L"" : L"\r\n") + lines[i];
    if (cchMax == 0)
        return std::wstring();
    if (block.size() > cchMax - 1)
        block.resize(cchMax - 1);
    return block;
}
