// libFuzzer target over everything that reads bytes from the peer: the record framing in both
// directions, the simulator's checks and trace of each record, the protocol engine fed as if
// the bytes came from the agent, the datagram handlers, and the script parser.
#include "KvRecordCodec.h"
#include "SimEngine.h"
#include "SimRecords.h"
#include "SimScript.h"

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    for (KvDirection dir : {KvDirection::ToAgent, KvDirection::ToService})
        KvDecodeStream(
            data, size, dir,
            [dir](const KvRecordDecoder::Event& ev)
            {
                if (ev.status != KvDecodeStatus::Record)
                    return;
                kvsim::DescribeRecord(ev.record.data(), ev.record.size(), dir);
                if (dir == KvDirection::ToService)
                    kvsim::CheckAgentRecord(ev.record.data(), ev.record.size());
            },
            64 * 1024);

    std::ostringstream sink;
    kvsim::Reporter reporter(sink, sink);
    kvsim::Engine engine(kvsim::EngineOptions{}, reporter);
    engine.Start();
    // Split the input once, so records straddle feeds.
    const std::size_t half = size / 2;
    engine.OnAgentBytes(data, half);
    engine.OnAgentBytes(data + half, size - half);
    engine.OnAgentClosed();
    engine.OnServiceDatagram("p", data, size);
    engine.OnServiceDatagram("p", data, size);
    engine.OnPermissionDatagram(data, size);

    kvsim::Command cmd;
    std::string error;
    kvsim::ParseCommand(std::string_view(reinterpret_cast<const char*>(data), size), 1, cmd, error);
    return 0;
}
