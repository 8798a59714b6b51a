#ifndef VINDAL_DELTAMANIFEST_P_H
#define VINDAL_DELTAMANIFEST_P_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace Vindal {

// What a delta package says about the two versions it joins: the state every
// path of the old version must be in, the state it ends in, and how the new
// state travels. A state is the SHA-256 of a file (64 hex characters),
// "link:<target>" for a symbolic link, or empty for no file at all.
//
// The delta package (a .tolmpkg of its own) holds "delta.json" (this
// manifest) and "files/<n>", the patch or whole file of the n-th entry.
struct DeltaManifest
{
    enum How {
        Same,   // unchanged; listed so that a changed file is noticed
        Patch,  // files/<n> is a binary patch of the old file
        Whole,  // files/<n> is the new file
        Link,   // the new state is a link, made from its target
        Remove, // the path is gone in the new version
    };

    struct File
    {
        QString path;     // relative, "/"-separated
        QString oldState;
        QString newState;
        qint64 size = 0;  // of the new file
        int mode = 0644;  // of the new file
        How how = Same;
    };

    QString module;
    QString from;
    QString to;
    QString packageSha256; // the full package of "to" that this delta stands for
    qint64 packageSize = 0;
    QList<File> files;
    QStringList folders;        // folders of the new version (empty ones included)
    QStringList removedFolders; // folders of the old version only, removed when empty

    static const char ManifestName[]; // "delta.json"
    static QString payloadName(int index); // "files/<index>"
    // The manifest is parsed in memory: a larger one is refused.
    static const qint64 MaxBytes = 4 * 1024 * 1024;

    QByteArray toJson() const;
    // Strict: a path that could leave the folder, a bad digest, a duplicate
    // or an unknown "how" refuses the whole manifest.
    bool parse(const QByteArray &json, QString *error);

    static QString linkState(const QString &target) { return QLatin1String("link:") + target; }
    static bool isLinkState(const QString &state) { return state.startsWith(QLatin1String("link:")); }
};

} // namespace Vindal

#endif // VINDAL_DELTAMANIFEST_P_H
