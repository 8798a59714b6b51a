#ifndef CORBETH_TEST_TESTPRODUCT_H
#define CORBETH_TEST_TESTPRODUCT_H

#include "config/configer.h"
#include "installer/installer.h"
#include "manager/ptrmanager.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QProcess>
#include <QtTest/QTest>

namespace TestProduct {

inline QVariantMap fromJson(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).toVariant().toMap();
}

inline void configure(const QByteArray &json)
{
    Corbeth::PtrManager::instance()->configer()->setConfigData(fromJson(json));
}

inline Corbeth::Installer *installer()
{
    return Corbeth::PtrManager::instance()->installer().data();
}

// A copy of the helper program under a name no other test uses, so the
// processes a test looks for by name are its own.
inline QString uniqueHelper(const QString &dir, const QString &stem)
{
    const QString path = dir + QStringLiteral("/%1-%2").arg(stem).arg(QCoreApplication::applicationPid());
    QFile::copy(testHelperPath(), path);
    QFile::setPermissions(path, QFile::permissions(testHelperPath()));
    return path;
}

} // namespace TestProduct

#endif // CORBETH_TEST_TESTPRODUCT_H
