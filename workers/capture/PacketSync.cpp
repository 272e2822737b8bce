#include "PacketSync.h"

#include "mpeg/packet_view.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace kestrel::capture {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t chainPackets = 5;
constexpr std::size_t chainReach = (chainPackets - 1) * packetSize;

// The first sync byte in [from, to); `to` when there is none.
std::size_t syncByte(Bytes bytes, std::size_t from, std::size_t to) noexcept {
    if (from >= to)
        return to;
    const void* found = std::memchr(bytes.data() + from, ts::sync_byte, to - from);
    return found ? static_cast<std::size_t>(static_cast<const unsigned char*>(found) - bytes.data()) : to;
}

// Sync bytes one stride apart, at most so many.
std::size_t chain(Bytes bytes, std::size_t at, std::size_t stride, std::size_t most) noexcept {
    std::size_t count = 0;
    for (; count < most && at < bytes.size() && bytes[at] == ts::sync_byte; at += stride)
        ++count;
    return count;
}

bool hasStride(Bytes bytes, std::size_t stride, bool whole) noexcept {
    const std::size_t wanted = whole ? std::min(chainPackets, bytes.size() / stride) : chainPackets;
    if (wanted == 0)
        return false;
    for (std::size_t at = syncByte(bytes, 0, bytes.size()); at < bytes.size();
         at = syncByte(bytes, at + 1, bytes.size()))
        if (chain(bytes, at, stride, wanted) == wanted && at + packetSize <= bytes.size())
            return true;
    return false;
}

// Whether packets begin again at a sync byte; nullopt: not to be said yet.
std::optional<bool> beginsAgain(Bytes bytes, std::size_t at, bool last) noexcept {
    if (at + chainReach < bytes.size())
        return chain(bytes, at, packetSize, chainPackets) == chainPackets;
    if (!last)
        return std::nullopt;
    const std::size_t left = (bytes.size() - at) / packetSize;
    // One alone counts when it ends with the file.
    return left > 0 && chain(bytes, at, packetSize, left) == left &&
           (left > 1 || at + packetSize == bytes.size());
}

// The first position in [from, to) where packets begin again, or the one from which on it cannot be said yet.
struct Resumption {
    std::size_t at;
    bool certain;
};

Resumption resumption(Bytes bytes, std::size_t from, std::size_t to, bool last) noexcept {
    for (std::size_t at = syncByte(bytes, from, to); at < to; at = syncByte(bytes, at + 1, to)) {
        const auto begins = beginsAgain(bytes, at, last);
        if (!begins || *begins)
            return {at, begins.has_value()};
    }
    return {to, false};
}

} // namespace

SourceShape shapeOf(Bytes beginning, bool whole) noexcept {
    if (!whole && beginning.size() < shapeSearchBytes && !hasStride(beginning, packetSize, false))
        return SourceShape::unknown;
    if (hasStride(beginning, packetSize, whole))
        return SourceShape::transport;
    if (hasStride(beginning, 192, whole))
        return SourceShape::packets192;
    return hasStride(beginning, 204, whole) ? SourceShape::packets204 : SourceShape::other;
}

SyncStep nextPacket(Bytes bytes, std::size_t at, bool inSync, bool last) noexcept {
    using enum SyncStep::What;
    const std::size_t left = bytes.size() - at;
    if (left < packetSize)
        return last && left > 0 ? SyncStep{gap, bytes.size()} : SyncStep{more, at};
    if (!inSync || bytes[at] != ts::sync_byte) {
        const Resumption found = resumption(bytes, at, bytes.size(), last);
        if (found.at != at)
            return {gap, found.at};
        return {found.certain ? packet : more, at + packetSize};
    }
    if (left == packetSize)
        return {last ? packet : more, at + packetSize};
    if (bytes[at + packetSize] == ts::sync_byte)
        return {packet, at + packetSize};
    const Resumption inside = resumption(bytes, at + 1, at + packetSize, last);
    if (inside.at == at + packetSize)
        return {packet, at + packetSize};
    return inside.certain ? SyncStep{gap, inside.at} : SyncStep{more, at};
}

} // namespace kestrel::capture
