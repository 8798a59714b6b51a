// corbeth-pack rotate-key: writes a repository's next key statement, signed
// with the current key(s), naming the keys its clients accept from now on.
#include "rotatekey.h"

#include <vindal/repository.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QFile>
#include <QtCore/QMetaEnum>

#include <cstdio>

namespace {

const char *const kExample =
    "corbeth-pack rotate-key --repo /srv/repo --key old.key --add new.pub --retire old.pub --sign-indexes new.key";

int report(std::FILE *stream, const QString &text, int exitCode)
{
    std::fprintf(stream, "%s\n", text.toLocal8Bit().constData());
    return exitCode;
}

// A public key given as its base64 text or as the path of a ".pub" file.
QString publicKey(const QString &value)
{
    QFile file(value);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.read(4096)).trimmed() : value;
}

QStringList publicKeys(const QStringList &values)
{
    QStringList keys;
    for (const QString &value : values)
        keys.append(publicKey(value));
    return keys;
}

} // namespace

int rotateKey(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("corbeth-pack rotate-key --repo <folder> --key <secret-key-file>: writes the repository's next key statement, "
                       "signed with the current key(s); clients configured with an earlier key follow it"));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addHelpOption();
    const auto option = [&parser](const char *name, const char *description, const char *value) {
        parser.addOption(QCommandLineOption(QLatin1String(name), QLatin1String(description), QLatin1String(value)));
    };
    option("repo", "The repository folder.", "folder");
    option("key", "A secret key the repository is signed with now (repeatable, up to its threshold).", "secret-key-file");
    option("add", "A public key clients accept from now on (base64 text or a .pub file; repeatable).", "key");
    option("retire", "A public key clients never accept again (base64 text or a .pub file; repeatable).", "key");
    option("threshold", "How many of the keys must sign the next rotation (default: as before).", "n");
    option("expires", "Clients refuse the statement this many days from now, unless the keys are rotated (or renewed) again.", "days");
    option("sign-indexes", "Sign every index of the repository again with this secret key, one of the keys named now.", "secret-key-file");

    const QString usage = QStringLiteral("corbeth-pack rotate-key: %1 (see 'corbeth-pack rotate-key --help')");
    if (!parser.parse(arguments))
        return report(stderr, usage.arg(parser.errorText()), 2);
    if (parser.isSet(QStringLiteral("help"))) {
        QString text = parser.helpText();
        text.replace(0, text.indexOf(QLatin1Char('\n')), QStringLiteral("Usage: corbeth-pack rotate-key --repo <folder> --key <secret-key-file> [options]"));
        return report(stdout, text + QStringLiteral("\nExample:\n  ") + QLatin1String(kExample), 0);
    }
    if (!parser.positionalArguments().isEmpty())
        return report(stderr, usage.arg(QStringLiteral("takes no arguments")), 2);
    if (parser.value(QStringLiteral("repo")).isEmpty() || parser.value(QStringLiteral("key")).isEmpty())
        return report(stderr, usage.arg(QStringLiteral("give --repo and --key")), 2);

    Vindal::Repository::KeyRotation rotation;
    rotation.signingKeyFiles = parser.values(QStringLiteral("key"));
    rotation.add = publicKeys(parser.values(QStringLiteral("add")));
    rotation.retire = publicKeys(parser.values(QStringLiteral("retire")));
    rotation.signIndexesWith = parser.value(QStringLiteral("sign-indexes"));
    for (const auto &number : {qMakePair(QStringLiteral("threshold"), &rotation.threshold),
                               qMakePair(QStringLiteral("expires"), &rotation.expiresInDays)}) {
        bool ok = true;
        if (parser.isSet(number.first) && (*number.second = parser.value(number.first).toInt(&ok)) < 1)
            return report(stderr, usage.arg(QStringLiteral("--%1 takes a number from 1").arg(number.first)), 2);
    }

    const Vindal::Outcome outcome = Vindal::Repository::rotateKey(parser.value(QStringLiteral("repo")), rotation);
    if (!outcome) {
        const char *code = QMetaEnum::fromType<Vindal::Error::ErrorCode>().valueToKey(outcome.code);
        return report(stderr, QStringLiteral("corbeth-pack rotate-key: %1 [%2]").arg(outcome.message, QLatin1String(code)), 1);
    }
    return report(stdout, outcome.message, 0);
}
