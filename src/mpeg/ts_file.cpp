#include "mpeg/ts_file.h"

#include "mpeg/packet_view.h"

ts_file::ts_file(const char* path) : m_node(path, kestrel::ts::packet_size) {}

ts_file::ts_file(std::istream& in) : m_node(in, kestrel::ts::packet_size) {}

void pipeline_mangler::flush(long index) {
    m_next->flush(index);
}
