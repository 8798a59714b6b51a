#ifndef CORBETH_FUZZSUPPORT_H
#define CORBETH_FUZZSUPPORT_H

#include <QtCore/QByteArray>

#include <cstddef>
#include <cstdint>

// What every fuzz target shares. LLVMFuzzerInitialize (fuzzsupport.cpp) puts
// the test sandbox in place (home, XDG folders, settings store), makes the
// application object and silences Qt's messages, which would otherwise cost
// more than the parsing they report on.

inline QByteArray fuzzInput(const uint8_t *data, size_t size)
{
    return QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
}

// Ends the run with a report the fuzzer records as a crash: an input broke a
// property that must hold for every input.
[[noreturn]] void fuzzFailure(const char *what);

#endif // CORBETH_FUZZSUPPORT_H
