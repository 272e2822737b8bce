#include "capture/tape_studio.h"

#include "streams/gop_reader.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <map>

namespace capture_test {
namespace {

using Clock = std::chrono::steady_clock;

double frameNumber(const std::string& label, int rateCode) {
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    return mpeg_timecode(label.c_str(), drop, rateCode).frame_count();
}

} // namespace

std::shared_ptr<const Tape> makeTape(const std::string& begin, int rateCode, int seconds,
                                     const std::string& options) {
    const char* rate = rateCode == 7 ? "60000/1001" : rateCode == 4 ? "30000/1001" : "25";
    const TemporaryDirectory directory;
    const std::string file = directory.path("tape.ts");
    const std::string length = std::to_string(seconds);
    const std::string command =
        "ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=320x240:rate=" + std::string(rate) +
        ":duration=" + length + " -f lavfi -i sine=duration=" + length +
        " -c:v mpeg2video -b:v 1500k -timecode '" + begin + "' " + options +
        " -c:a ac3 -muxrate 2500k -f mpegts " + file;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    auto tape = std::make_shared<Tape>();
    tape->begin = begin;
    tape->rateCode = rateCode;
    tape->packets = readPackets(file);
    for (const auto& gop : kestrel::test::readGops(file, videoPid)) {
        EXPECT_EQ(gop.drop, rateCode != 3);
        tape->groups.push_back({frameNumber(gop.text(), rateCode), gop.packet()});
    }
    EXPECT_GT(tape->groups.size(), 3u);
    tape->endFrame = frameNumber(begin, rateCode) + seconds * mpeg_timecode::fps(rateCode);
    return tape;
}

TapeStudio::TapeStudio(std::shared_ptr<const Tape> tape, const std::string& standsAt, std::vector<int> ports)
    : m_tape(std::move(tape)), m_deck(standsAt, m_tape->deckRateCode(), Clock::now()) {
    for (const int port : ports)
        m_senders.push_back(std::make_unique<Sender>("127.0.0.1", port));
    withDeck([](SimulatedDeck& deck) { deck.seekSeconds = 0.3; });
    m_thread = std::thread([this] { send(); });
}

TapeStudio::~TapeStudio() {
    m_end = true;
    m_thread.join();
}

void TapeStudio::serve(ServiceQueues& queues) {
    queues.act = [this, &queues](const Message& message) {
        if (message.type != VTR_CMD_REQUEST_MSG || silent)
            return;
        _VTRCmdData record{};
        ASSERT_EQ(message.payload.size(), sizeof record);
        std::memcpy(&record, message.payload.data(), sizeof record);
        withDeck([&](SimulatedDeck& deck) { deck.handle(record, Clock::now()); });
        queues.send(VTR_CMD_RESPONSE_MSG, &record, sizeof record);
    };
}

// Between two groups packets are spread evenly over their frames.
std::size_t TapeStudio::packetAt(double frame) const {
    const auto& groups = m_tape->groups;
    const auto next =
        std::find_if(groups.begin(), groups.end(), [&](const auto& g) { return g.frame > frame; });
    if (next == groups.begin())
        return 0;
    const auto& group = *(next - 1);
    const double endFrame = next == groups.end() ? m_tape->endFrame : next->frame;
    const std::size_t endPacket = next == groups.end() ? m_tape->packets.size() : next->packet;
    const double part = std::clamp((frame - group.frame) / std::max(1.0, endFrame - group.frame), 0.0, 1.0);
    return group.packet + static_cast<std::size_t>(part * static_cast<double>(endPacket - group.packet));
}

void TapeStudio::send() {
    std::optional<std::size_t> at; // none: not playing
    while (!m_end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const auto delayed = Clock::now() - std::chrono::duration_cast<Clock::duration>(
                                                std::chrono::duration<double>(lag.load()));
        const auto frame = withDeck([&](const SimulatedDeck& deck) -> std::optional<double> {
            return deck.playing() ? std::optional(deck.frame(delayed) * m_tape->framesPerLabel())
                                  : std::nullopt;
        });
        if (!frame) {
            at.reset();
            continue;
        }
        const std::size_t to = packetAt(*frame);
        if (!at) // at the beginning of a picture that can be shown
            at = packetAt(std::floor(*frame));
        for (; *at + 7 <= to; *at += 7) {
            std::vector<unsigned char> bytes;
            for (std::size_t i = *at; i < *at + 7; ++i)
                bytes.insert(bytes.end(), m_tape->packets[i].begin(), m_tape->packets[i].end());
            for (std::size_t i = 0; i < m_senders.size(); ++i)
                if (!dark && !(i == 1 && secondDark))
                    m_senders[i]->sendRaw(bytes);
        }
    }
}

} // namespace capture_test
