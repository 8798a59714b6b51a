#ifndef CORBETH_TOOLS_FORMATBYTES_H
#define CORBETH_TOOLS_FORMATBYTES_H

#include <QtCore/QString>

// A size as the tools print it: "1.5 MiB", "812 B". Kept apart from
// terminal.h, which the Win32 units build without Qt.
QString formatBytes(qint64 bytes);

#endif // CORBETH_TOOLS_FORMATBYTES_H
