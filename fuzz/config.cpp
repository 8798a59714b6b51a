// The configuration document as a product maker writes it: the store takes it,
// the installer parses the install descriptions, the clear-process list, the
// custom tags and the additions, and then applies every addition.
#include "fuzzsupport.h"

#include "config/configer.h"
#include "installer/installer.h"
#include "manager/ptrmanager.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

using namespace Corbeth;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QJsonDocument document = QJsonDocument::fromJson(fuzzInput(data, size));
    if (!document.isObject())
        return 0;
    QVariantMap map = document.object().toVariantMap();
    // The plug-in folder would have the fuzzer load arbitrary libraries.
    map.remove(QStringLiteral("plugin"));

    // One set of workers for the whole run, as in a client: each document
    // replaces the previous one. (Fresh workers per input made libFuzzer's
    // leak check, taken right after each input, see the module service
    // adapter's thread still winding down.)
    PtrManager *workers = PtrManager::instance();
    workers->configer()->setConfigData(map);
    Installer *installer = workers->installer().data();
    installer->setCurrentAddtions(map.value(QStringLiteral("additions")).toMap().keys());
    installer->expandPath(map.value(QStringLiteral("installPath")).toString());
    return 0;
}
