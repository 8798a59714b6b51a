// corbeth-setup: the installer window of a product, and its silent form for
// scripts. It uses the engine only through the public Manager.
#include "configfile.h"
#include "exitcodes.h"
#include "failurecause.h"
#include "productinfo.h"
#include "setupoptions.h"
#include "setuptask.h"
#include "setupwindow.h"
#include "singleinstance.h"

#include <QtCore/QLoggingCategory>
#include <QtCore/QMetaEnum>
#include <QtWidgets/QApplication>
#include <QtWidgets/QMessageBox>

#include <cstdio>
#include <memory>

using namespace Corbeth;

namespace {

QString keyName(CBEnum::ErrorCode code)
{
    return QString::fromLatin1(QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code));
}

void printError(const QString &line)
{
    std::fprintf(stderr, "corbeth-setup: %s\n", qPrintable(line));
}

int runSilent(Manager &manager, const ProductInfo &product, const SetupOptions &options, const QString &package)
{
    if (!options.additions.isEmpty() && !manager.setCurrentAddtions(options.additions)) {
        printError(QStringLiteral("unknown addition among %1 (known: %2)")
                       .arg(options.additions.join(QLatin1Char(',')), product.additions.join(QLatin1Char(','))));
        return CorbethExit::Usage;
    }
    SetupTask task(&manager);
    int exitCode = CorbethExit::Failure;
    QObject::connect(&task, &SetupTask::succeeded, [&] {
        exitCode = CorbethExit::Success;
        QCoreApplication::exit(0);
    });
    QObject::connect(&task, &SetupTask::upToDate, [](const QString &text) {
        std::fprintf(stdout, "corbeth-setup: %s\n", qPrintable(text));
    });
    QObject::connect(&task, &SetupTask::failed, [&](CBEnum::ErrorCode code) {
        const QString cause = FailureCause::text();
        printError(QStringLiteral("%1 failed: %2(%3, %4)")
                       .arg(options.mode == SetupOptions::Uninstall ? QStringLiteral("uninstall")
                            : options.mode == SetupOptions::Update  ? QStringLiteral("update")
                                                                    : QStringLiteral("install"),
                            cause.isEmpty() ? QString() : cause + QLatin1Char(' '), keyName(code), options.configFile));
        exitCode = FailureCause::exitCode(code);
        QCoreApplication::exit(0);
    });
    QObject::connect(&task, &SetupTask::cancelled, [&] {
        exitCode = CorbethExit::Cancelled;
        QCoreApplication::exit(0);
    });
    const SetupTask::Kind kind = options.mode == SetupOptions::Uninstall ? SetupTask::Uninstall
        : options.mode == SetupOptions::Update                         ? SetupTask::Update
                                                                       : SetupTask::Install;
    const QString path = !options.path.isEmpty() ? options.path
        : kind == SetupTask::Install             ? product.installPath
                                                 : QString();
    task.start(kind, path, package);
    QCoreApplication::exec();
    return exitCode;
}

} // namespace

int main(int argc, char *argv[])
{
    // The silent form and the answers to --help and --version need no
    // display: they run without the GUI, so that they work over ssh and in CI.
    bool silent = false;
    bool windowless = false;
    for (int i = 1; i < argc; ++i) {
        silent = silent || qstrcmp(argv[i], "--silent") == 0;
        for (const char *option : {"--help", "-h", "-?", "--help-all", "--version", "-v"})
            windowless = windowless || qstrcmp(argv[i], option) == 0;
    }

    QCoreApplication::setApplicationName(QStringLiteral("corbeth-setup"));
    QCoreApplication::setApplicationVersion(QStringLiteral(CORBETH_SETUP_VERSION));
    std::unique_ptr<QCoreApplication> app;
    if (silent || windowless) {
        app = std::make_unique<QCoreApplication>(argc, argv);
        // The warnings and critical lines are heard: they name a failure's cause.
        QLoggingCategory::setFilterRules(QStringLiteral("corbeth.lib.debug=false\ncorbeth.lib.info=false"));
        FailureCause::listen(false);
    } else {
        QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
        QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
        QGuiApplication::setHighDpiScaleFactorRoundingPolicy(Qt::HighDpiScaleFactorRoundingPolicy::PassThrough);
        app = std::make_unique<QApplication>(argc, argv);
        SetupWindow::captureLog();
        FailureCause::listen(true);
    }

    SetupOptions options;
    QString error;
    bool exitNow = false;
    if (!options.parse(QCoreApplication::arguments(), error, exitNow)) {
        printError(error + QStringLiteral(" (see --help)"));
        return CorbethExit::Usage;
    }
    if (exitNow)
        return CorbethExit::Success;

    SingleInstance guard(options.configFile);
    if (!silent && !guard.claim())
        return CorbethExit::Success;

    Manager manager;
    const auto refuse = [&](const QString &what, CBEnum::ErrorCode code) {
        const QString cause = FailureCause::text();
        const QString line = QStringLiteral("%1: %2(%3, %4)")
                                 .arg(what, cause.isEmpty() ? QString() : cause + QLatin1Char(' '), keyName(code),
                                      options.configFile);
        printError(line);
        if (!silent)
            QMessageBox::critical(nullptr, QStringLiteral("corbeth-setup"), line);
        return FailureCause::exitCode(code);
    };
    int exitCode = CorbethExit::Success;
    if (const QString problem = ConfigFile::problem(options.configFile, exitCode); !problem.isEmpty()) {
        printError(problem);
        if (!silent)
            QMessageBox::critical(nullptr, QStringLiteral("corbeth-setup"), problem);
        return exitCode;
    }
    CBEnum::ErrorCode code = manager.setConfigPath(options.configFile);
    if (code != CBEnum::EC_NoError)
        return refuse(QStringLiteral("the configuration cannot be read"), code);
    // A program nobody watches must stop on its own, and a window must come
    // to its error page rather than sit at 0%.
    SetupTask::boundRetries(manager, 3);
    for (const QString &warning : FailureCause::takeConfigWarnings())
        printError(QStringLiteral("warning: ") + warning);
    const ProductInfo product = ProductInfo::fromConfig(manager.configData());

    QString package;
    if (options.mode != SetupOptions::Uninstall) {
        SetupTask probe(&manager);
        package = probe.findPackage(options.packageDir, code);
        if (code == CBEnum::EC_NoError && package.isEmpty())
            code = manager.initRemote();
        if (code != CBEnum::EC_NoError && silent)
            return refuse(QStringLiteral("setup cannot start"), code);
    }
    if (silent)
        return runSilent(manager, product, options, package);

    SetupWindow window(&manager, product, options, package);
    QObject::connect(&guard, &SingleInstance::activationRequested, &window, &SetupWindow::bringToFront);
    if (code != CBEnum::EC_NoError)
        window.showFailure(code);
    window.show();
    if (window.exec() == QDialog::Accepted)
        return CorbethExit::Success;
    return window.lastError() != CBEnum::EC_NoError ? FailureCause::exitCode(window.lastError())
                                                    : CorbethExit::Cancelled;
}
