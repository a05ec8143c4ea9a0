#pragma once

// One info value of a data stream or of a buffer, read into a variable of
// its type; false when the producer has none or answers with another size.
#include "client/GenTLProducer.h"

namespace LorunClient {

template <class T>
bool StreamInfo(const GenTLProducer& producer, DS_HANDLE stream, STREAM_INFO_CMD command, T& value)
{
    INFO_DATATYPE type = 0;
    T read{};
    size_t size = sizeof read;
    if (producer.DSGetInfo(stream, command, &type, &read, &size) != GC_ERR_SUCCESS || size != sizeof read)
        return false;
    value = read;
    return true;
}

template <class T>
bool BufferInfo(const GenTLProducer& producer, DS_HANDLE stream, BUFFER_HANDLE buffer, BUFFER_INFO_CMD command,
                T& value)
{
    INFO_DATATYPE type = 0;
    T read{};
    size_t size = sizeof read;
    if (producer.DSGetBufferInfo(stream, buffer, command, &type, &read, &size) != GC_ERR_SUCCESS ||
        size != sizeof read)
        return false;
    value = read;
    return true;
}

}
