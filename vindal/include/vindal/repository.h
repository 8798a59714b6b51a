#ifndef VINDAL_REPOSITORY_H
#define VINDAL_REPOSITORY_H

#include <vindal/outcome.h>
#include <vindal/rollout.h>
#include <vindal/vindal_export.h>

#include <QtCore/QString>

namespace Vindal {

// The publishing side of a static package repository: a plain folder that
// any web server, object store or CDN can serve as it is.
//
//   <repo>/modules/<module>/index.json       versions of one module
//   <repo>/modules/<module>/index.json.sig   optional Ed25519 signature (base64)
//   <repo>/modules/<module>/<package files>
//   <repo>/upgrades/index.json (+ .sig)      installer upgrades, by model code
//   <repo>/upgrades/<package files>
class VINDAL_EXPORT Repository
{
public:
    // Copies packageFile into the module's folder and adds (or replaces) the
    // version in the module's index, which is written atomically. With a
    // secret key file the index is signed, otherwise an old signature is
    // removed (it would no longer match). A key file name that is given but
    // empty is refused (ConfigError), never taken as "unsigned". With
    // expiresInDays (1 to 3650) the index carries an expiry ("expires"),
    // signed with it, after which clients refuse it (IndexExpired); each
    // publication sets its own, and none when it is 0.
    static Outcome publish(const QString &packageFile, const QString &repoFolder, const QString &module,
                           const QString &version, const QString &secretKeyFile = QString(), int expiresInDays = 0);

    // The same, with the version released on release.channel alone, offered
    // to release.percent of that channel's clients ("channels" in its entry).
    static Outcome publish(const QString &packageFile, const QString &repoFolder, const QString &module,
                           const QString &version, const Rollout &release, const QString &secretKeyFile = QString(),
                           int expiresInDays = 0);
    // Puts a published version on release.channel as well, offered to
    // release.percent of its clients; the channels it is on stay.
    static Outcome promote(const QString &repoFolder, const QString &module, const QString &version, const Rollout &release,
                           const QString &secretKeyFile = QString(), int expiresInDays = 0);
    // Changes the share of a version on release.channel to release.percent,
    // or halts it there (release.halted, keeping its share for the record).
    // An empty version means the newest on that channel. The outcome's
    // subject is the version changed.
    static Outcome setRollout(const QString &repoFolder, const QString &module, const QString &version, const Rollout &release,
                              const QString &secretKeyFile = QString(), int expiresInDays = 0);

    // The same for an installer package in the upgrades document, listed
    // under modelCode with softVersion.
    static Outcome publishUpgrade(const QString &packageFile, const QString &repoFolder, const QString &modelCode,
                                  const QString &softVersion, const QString &secretKeyFile = QString(),
                                  int expiresInDays = 0);

    // Checks packageFile against the module's index entry for version (the
    // newest version when empty): size, MD5 and SHA-256; with a public key
    // (base64, as in the configuration) the index signature too. A null key
    // means "no check"; an empty or blank one is refused (ConfigError).
    static Outcome verifyPackage(const QString &packageFile, const QString &repoFolder, const QString &module,
                                 const QString &version = QString(), const QString &publicKey = QString());

    // Writes an Ed25519 key pair: "<name>.key" (secret, owner-only) and
    // "<name>.pub", both base64 text. The outcome's subject is the public key.
    static Outcome keygen(const QString &name);

    // Module names are plain: letters, digits, ".", "_" and "-".
    static bool isValidModuleName(const QString &name);

private:
    Repository() = delete;
};

} // namespace Vindal

#endif // VINDAL_REPOSITORY_H
