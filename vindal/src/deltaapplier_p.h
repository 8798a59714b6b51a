#ifndef VINDAL_DELTAAPPLIER_P_H
#define VINDAL_DELTAAPPLIER_P_H

#include "deltamanifest_p.h"

#include <vindal/package.h>

namespace Vindal {

// Applies a delta package to the folder that holds the version it starts
// from. Nothing is replaced until every file is ready:
//  1. the package is unpacked (with the unpacking's own checks and limits)
//     into "<folder>/.vindal-delta/payload";
//  2. every path of the manifest is checked: in its old state it is to be
//     changed, in its new state it is done already (an apply run twice),
//     in any other state the apply stops with baseMismatch() and nothing is
//     touched;
//  3. each new file is written as ".vindal-delta-<n>" beside its target and
//     its SHA-256 checked against the manifest;
//  4. the renames are written to "<folder>/.vindal-delta/journal.json", then
//     carried out. An apply killed during them is completed by recover(),
//     which every unpack into the folder runs first: each file is either
//     old or new, never half of one, and in the end new.
// Synchronous; runs on whatever thread calls run().
class DeltaApplier
{
public:
    DeltaApplier(const QString &deltaFile, const QString &targetFolder, const ExtractLimits &limits);

    // With an expected version and package digest, a delta that stands for
    // another package is refused before anything is checked.
    void expect(const QString &module, const QString &version, const QString &packageSha256);
    Outcome run(const ProgressCallback &progress);

    // The installed files are not the version the delta starts from (a
    // file changed, missing or in the way): nothing was replaced, and the
    // full package is the way on.
    bool baseMismatch() const { return m_baseMismatch; }
    const DeltaManifest &manifest() const { return m_manifest; }
    // The manifest was read and is the one of the expected version.
    bool isBound() const { return m_bound; }

    // Whether the package is a delta: its first entry is the manifest.
    static bool isDelta(const QString &packageFile);
    // Removes what manifest's old version had and its new one drops: files
    // still as the old version left them, and folders left empty. For the
    // full package that replaces a delta, which removes nothing itself.
    static void removeDropped(const DeltaManifest &manifest, const QString &targetFolder);
    // Completes the renames of an apply killed after it wrote its journal,
    // and removes what one killed before that left.
    static void recover(const QString &targetFolder);

private:
    Outcome checkBase(QList<int> *todo, const std::function<bool(qint64)> &progress);
    Outcome prepare(int index, qint64 *written);
    Outcome writeJournal(const QList<int> &todo);
    void cleanUp();
    // Carries out the journal in root's work folder, if there is one, then
    // removes the work folder and the temporary files; false (and the
    // journal kept) when a rename failed.
    static bool finishWork(const QString &root, bool earlierRun);

    QString m_delta;
    QString m_target;
    QString m_root;
    QString m_work;
    ExtractLimits m_limits;
    QString m_expectModule;
    QString m_expectVersion;
    QString m_expectSha256;
    DeltaManifest m_manifest;
    bool m_baseMismatch = false;
    bool m_bound = false;
    qint64 m_maxBytes = 0;
};

} // namespace Vindal

#endif // VINDAL_DELTAAPPLIER_P_H
