#ifndef CORBETH_PROCESSCLOSER_H
#define CORBETH_PROCESSCLOSER_H

#include <QtCore/QList>
#include <QtCore/QString>

namespace Corbeth {

// Finds and ends running programs by the name of their executable. A name
// matches with and without ".exe" ("Viewer" and "Viewer.exe" are one program),
// so one clear-process list serves Windows and other systems. The engine's own
// process is never found and never ended.
class ProcessCloser
{
public:
    static QList<qint64> find(const QString &name);
    // Asks every matching process to end, ends the ones still running after
    // graceMs forcibly, and returns whether none is left.
    static bool close(const QString &name, int graceMs);
    // name without a trailing ".exe" (any case), which is how names are compared.
    static QString baseName(const QString &name);

private:
    // Asks the matching processes to end, or ends them at once when force is set.
    static void end(const QString &name, bool force);
    static bool waitUntilGone(const QString &name, int ms);
};

} // namespace Corbeth

#endif // CORBETH_PROCESSCLOSER_H
