// A minimal agent for the tests: follows the echo rules with the catalogue's builders, so the
// simulator can be driven through a whole conversation. Tests bend its answers to make faults.
#pragma once

#include "KvRecordCodec.h"
#include "SimRecords.h"

#include <functional>
#include <memory>

namespace kvsim_test
{

using kvsim::Bytes;
using kvsim::ToBytes;

class FakeAgent
{
public:
    // Called with every answer before it goes out; may change, drop or add bytes.
    std::function<void(std::uint32_t receivedType, Bytes& answer)> bend;
    bool exitRequested = false;
    std::vector<Bytes> records; // everything the service sent, whole

    // Bytes from the service in, the agent's answers out (in order, concatenated).
    Bytes OnServiceBytes(const std::uint8_t* data, std::size_t size)
    {
        Bytes out;
        m_decoder.Feed(data, size);
        // Like the agent: an unknown id is skipped and the next one read.
        for (auto ev = m_decoder.Next();
             ev.status == KvDecodeStatus::Record || ev.status == KvDecodeStatus::UnknownId;
             ev = m_decoder.Next())
        {
            if (ev.status == KvDecodeStatus::UnknownId)
                continue;
            records.push_back(ev.record);
            for (Bytes answer : Answer(ev.dwType, ev.record))
            {
                if (bend)
                    bend(ev.dwType, answer);
                out.insert(out.end(), answer.begin(), answer.end());
            }
        }
        return out;
    }

    // A chat body beyond the bound: like the agent, nothing more can be read.
    bool LinkBroken() const { return m_decoder.Failed(); }

private:
    std::vector<Bytes> Answer(std::uint32_t type, const Bytes& rec)
    {
        switch (type)
        {
        case MSG_TYPE_VERSION:
        {
            MSG_VERSION v;
            KvRecordFromBytes(v, rec.data(), rec.size());
            KvBuildVersionAnswer(v, 1);
            return {ToBytes(v)};
        }
        case MSG_TYPE_TRAYICON_INIT:
        {
            auto init = std::make_unique<MSG_TRAYICON_INIT>();
            KvRecordFromBytes(*init, rec.data(), rec.size());
            KvBuildInitAnswer(*init, 1, KV_DESKTOP_STATE_NORMAL);
            return {ToBytes(KvBuildDesktopEffectsAck(0)), ToBytes(*init)};
        }
        case MSG_TYPE_TRAYICON_SETTINGS:
        case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        {
            MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
            KvBuildDesktopUserInformation(info, MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, u"alice",
                                          u"Default", KV_DESKTOP_OPENED);
            return {ToBytes(info)};
        }
        case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS:
            return {ToBytes(KvBuildDesktopEffectsAck(KvReadU32(rec.data() + 4)))};
        case MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE:
            return {ToBytes(KvBuildTypeOnly(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE))};
        case MSG_TYPE_TRAYICON_EXIT:
            exitRequested = true;
            return {};
        }
        return {};
    }

    KvRecordDecoder m_decoder{KvDirection::ToAgent};
};

} // namespace kvsim_test
