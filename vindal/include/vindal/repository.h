#ifndef VINDAL_REPOSITORY_H
#define VINDAL_REPOSITORY_H

#include <vindal/outcome.h>
#include <vindal/rollout.h>
#include <vindal/vindal_export.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace Vindal {

// The publishing side of a static package repository: a plain folder that
// any web server, object store or CDN can serve as it is.
//
//   <repo>/modules/<module>/index.json       versions of one module
//   <repo>/modules/<module>/index.json.sig   optional Ed25519 signature (base64)
//   <repo>/modules/<module>/<package files>
//   <repo>/upgrades/index.json (+ .sig)      installer upgrades, by model code
//   <repo>/upgrades/<package files>
//   <repo>/keys/<n>.json (+ .sig)           key statements: which keys sign the repository
class VINDAL_EXPORT Repository
{
public:
    // A change of the keys that sign a repository (rotateKey).
    struct KeyRotation
    {
        QStringList signingKeyFiles; // secret keys of the current keys, enough to meet their threshold
        QStringList add;             // public keys (base64) named from now on
        QStringList retire;          // public keys (base64) no client accepts any more, for good
        int threshold = 0;           // how many keys must sign the next rotation; 0: as before
        int expiresInDays = 0;       // 1 to 3650; 0: the statement never expires
        QString signIndexesWith;     // a secret key file of the new keys: every index is signed again with it
    };

    // Copies packageFile into the module's folder and adds (or replaces) the
    // version in the module's index, which is written atomically. With a
    // secret key file the index is signed, otherwise an old signature is
    // removed (it would no longer match). A key file name that is given but
    // empty is refused (ConfigError), never taken as "unsigned"; so are a key
    // that the repository's newest key statement does not name (or, without
    // a statement, that did not make its existing signatures), and no key for
    // a repository that is signed. With
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

    // Delta packages (see docs/repository.md, "Delta updates"). Makes a
    // delta to version from each of the count newest older versions whose
    // packages are still in the repository, lists them under version in the
    // index (replacing the deltas listed there before) and signs the index
    // again with the key, which a signed repository requires, as publish does. A delta
    // that is not smaller than the full package is not kept.
    static Outcome publishDeltas(const QString &repoFolder, const QString &module, const QString &version, int count = 3,
                                 const QString &secretKeyFile = QString());
    // The deltas of the module's versions, newest version first, one line each.
    static Outcome listDeltas(const QString &repoFolder, const QString &module);
    // Removes the deltas (files and index entries) of every version but the
    // keep newest ones; clients take the newest version, so older deltas only
    // serve clients pinned to an older version.
    static Outcome pruneDeltas(const QString &repoFolder, const QString &module, int keep = 1,
                               const QString &secretKeyFile = QString());

    // Writes the repository's next key statement, signed with the current
    // keys, that names the keys clients accept from now on: the current ones
    // with rotation.add and without rotation.retire. Refused (ConfigError)
    // when the signing keys are not enough of the current ones, when no key
    // would be left, when a retired key would be named again, and when an
    // index would stay signed with a key the statement no longer names.
    static Outcome rotateKey(const QString &repoFolder, const KeyRotation &rotation);

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
