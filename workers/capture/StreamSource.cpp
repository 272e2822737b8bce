#include "StreamSource.h"

#include "Limits.h"

namespace kestrel::capture {

StreamSource decideStreamSource(const CSettings::EncoderReception& reception, const EncoderMap& map) {
    StreamSource source;
    source.overwrite = map.overwriteAll();
    const EncoderMap::Entry* entry = map.find(reception.snmpIpAddress);
    if (entry) {
        source.interfaceAddress = entry->interfaceAddress;
        source.overwrite = source.overwrite || entry->overwrite;
    }
    const bool portGiven = reception.port > 0 && reception.port < 65536;
    if (reception.ipAddress != 0 || portGiven) {
        source.address = reception.ipAddress;
        source.port = portGiven ? reception.port : defaultStreamPort;
        source.origin = "the settings file";
    } else if (entry) {
        source.address = entry->streamAddress;
        source.port = entry->port;
        source.origin = "the encoder map";
    } else {
        source.port = defaultStreamPort;
        source.sender = reception.snmpIpAddress;
        source.origin = "the default: what the encoder sends to this host";
    }
    return source;
}

} // namespace kestrel::capture
