#ifndef VINDAL_KEYSTATEMENT_P_H
#define VINDAL_KEYSTATEMENT_P_H

#include <vindal/outcome.h>

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QJsonObject>
#include <QtCore/QList>

namespace Vindal {

// A repository's statement of the keys that sign it: the Ed25519 keys whose
// index signatures count from now on, how many of them must sign the next
// statement, and the keys retired for good. Statements are numbered from 1
// and all of them stay in the repository ("keys/<n>.json", beside it
// "keys/<n>.json.sig" with one signature per line), so a client that knows
// only the first key follows every rotation since, one statement at a time.
//
// Number 0 stands for "no statement accepted yet": the key the client is
// configured with, alone. A client still there skips statements its key did
// not sign (they come from before its key took part); once it has accepted
// one, a statement that is not signed by enough of the keys it trusts is
// refused.
struct KeyStatement
{
    static const int MaxKeys = 32;

    int number = 0;
    QList<QByteArray> keys;     // raw public keys
    int threshold = 1;          // how many of keys must sign the next statement
    QList<QByteArray> retired;  // never trusted again; a later statement keeps every one
    QDateTime expires;          // invalid: never

    KeyStatement() = default;
    explicit KeyStatement(const QByteArray &configuredKey) : keys{configuredKey} {}

    bool isExpired() const { return expires.isValid() && expires < QDateTime::currentDateTimeUtc(); }
    // The document as a publisher writes it and the state file keeps it.
    QJsonObject toJson() const;
    bool parse(const QJsonObject &object, QString *error);
    // How many of keys signed document; signatures holds one base64
    // signature per line.
    int signers(const QByteArray &document, const QByteArray &signatures) const;
    // Whether one of keys made the index's signature.
    bool signs(const QByteArray &document, const QByteArray &signature) const;
    // Judges the statement found at number next as the one that follows this
    // one. On success *trusted is the statement trusted now: the new one, or
    // this one again when it was skipped (the message says why). Refused
    // with SignatureInvalid (too few signatures) or InvalidIndex (a signed
    // statement that contradicts this one or lies at another number).
    Outcome follow(int next, const QByteArray &document, const QByteArray &signatures, KeyStatement *trusted) const;
    // A one-line description for an operator: "statement 2 (keys/2.json)".
    static QString describe(int number);
};

} // namespace Vindal

#endif // VINDAL_KEYSTATEMENT_P_H
