#ifndef CORBETH_PACK_ROTATEKEY_H
#define CORBETH_PACK_ROTATEKEY_H

#include <QtCore/QStringList>

// The "rotate-key" command: arguments as for a program of its own (the
// first is the program's name). Returns the exit code.
int rotateKey(const QStringList &arguments);

#endif // CORBETH_PACK_ROTATEKEY_H
