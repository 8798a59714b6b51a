#ifndef VINDAL_REPOSITORYKEYS_P_H
#define VINDAL_REPOSITORYKEYS_P_H

#include "keystatement_p.h"

#include <vindal/repository.h>

#include <QtCore/QStringList>

namespace Vindal {

// The publisher's view of who signs a repository folder: its newest key
// statement and the indexes in it. Publishing and key rotation check a key
// against it, so that a repository is never signed with a key its clients
// do not trust, nor left unsigned by mistake.
//
// Repository::rotateKey is defined in repositorykeys.cpp, beside this
// class, so that repository.cpp keeps to publishing packages.
class RepositoryKeys
{
public:
    static Outcome read(const QString &repoFolder, RepositoryKeys *keys);

    // Whether the indexes may be signed with secretKey, read from keyFile;
    // an empty key: whether they may be left unsigned.
    Outcome admits(const QByteArray &secretKey, const QString &keyFile) const;
    // Follows the folder's statements as a client does, from *trusted (the
    // configured key alone) to the newest it accepts.
    Outcome follow(KeyStatement *trusted) const;
    Outcome rotate(const Repository::KeyRotation &rotation) const;

private:
    QString path(const QString &relative) const;
    // The current keys as the signing keys show them, checked against the
    // statement (or, without one, against the signed indexes).
    Outcome currentKeys(const QList<QByteArray> &secrets, const QStringList &files, KeyStatement *current) const;
    // The statement that follows current, as a client accepts it, its
    // document and its signatures.
    Outcome nextStatement(const KeyStatement &current, const QList<QByteArray> &secrets, const Repository::KeyRotation &rotation,
                          KeyStatement *accepted, QByteArray *document, QByteArray *signatures) const;

    QString m_folder;
    KeyStatement m_statement;  // the newest; number 0 when there is none
    QStringList m_indexes;     // relative paths of every index
    QStringList m_signed;      // those of them with a signature beside them
};

} // namespace Vindal

#endif // VINDAL_REPOSITORYKEYS_P_H
