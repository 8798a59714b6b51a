#include "setupwindow.h"

#include "failurecause.h"

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QLocale>
#include <QtCore/QMetaEnum>
#include <QtCore/QMutex>
#include <QtCore/QProcess>
#include <QtCore/QSaveFile>
#include <QtCore/QStorageInfo>
#include <QtCore/QTemporaryFile>
#include <QtCore/QUrl>
#include <QtGui/QCloseEvent>
#include <QtGui/QDesktopServices>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QFileDialog>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QMessageBox>
#include <QtWidgets/QPlainTextEdit>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QStackedWidget>
#include <QtWidgets/QStyle>
#include <QtWidgets/QVBoxLayout>

#include <utility>

namespace Corbeth {

namespace {

QMutex g_logLock;
QStringList g_log;
QtMessageHandler g_previousHandler = nullptr;

void keepLogLine(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
    {
        QMutexLocker lock(&g_logLock);
        // Enough for any install; a runaway retry loop must not eat the memory.
        if (g_log.size() > 50000)
            g_log.erase(g_log.begin(), g_log.begin() + 10000);
        g_log << QStringLiteral("%1 %2 %3: %4")
                     .arg(QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")),
                          QString::fromLatin1(context.category ? context.category : "default"),
                          QString::fromLatin1(levels[qBound(0, int(type), 4)]), message);
    }
    // The engine's lines belong in the saved log, not on the user's terminal.
    if (type != QtDebugMsg && type != QtInfoMsg && qstrcmp(context.category, "corbeth.lib") != 0 && g_previousHandler)
        g_previousHandler(type, context, message);
}

QString keyName(CBEnum::ErrorCode code)
{
    return QString::fromLatin1(QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code));
}

QString sentenceFor(CBEnum::ErrorCode code)
{
    switch (code) {
    case CBEnum::EC_Timeout: return SetupWindow::tr("The server did not answer in time.");
    case CBEnum::EC_UnknownNetworkError:
        return SetupWindow::tr("The package could not be downloaded. Check the network connection and try again.");
    case CBEnum::EC_NetworkError_FileDownloadedError: return SetupWindow::tr("The download was interrupted.");
    case CBEnum::EC_UnknownError:
        return SetupWindow::tr("Setup could not finish. Close every program of the product and try again.");
    case CBEnum::EC_SoftwarePathError: return SetupWindow::tr("The install folder cannot be used.");
    case CBEnum::EC_FileNotOpen: return SetupWindow::tr("A file setup needs is missing or cannot be opened.");
    case CBEnum::EC_DriverError: return SetupWindow::tr("A device driver the product needs could not be installed.");
    case CBEnum::EC_UninstallOlderSoftwareFail:
        return SetupWindow::tr("The older version of the product could not be removed.");
    case CBEnum::EC_ProcessTimeout: return SetupWindow::tr("A setup program did not finish in time.");
    case CBEnum::EC_VerifyFailed: return SetupWindow::tr("The package is damaged: its checksum does not match.");
    case CBEnum::EC_ConfigDataError:
        return SetupWindow::tr("The product's configuration is incomplete, or the package was refused.");
    default: return SetupWindow::tr("Setup could not finish.");
    }
}

QLabel *wrapped(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

// The nearest folder of path that exists already: what a new folder would be made in.
QString existingAncestor(const QString &path)
{
    QFileInfo info(path);
    while (!info.exists() && !info.isRoot() && info.absolutePath() != info.absoluteFilePath())
        info.setFile(info.absolutePath());
    return info.absoluteFilePath();
}

} // namespace

void SetupWindow::captureLog()
{
    if (!g_previousHandler)
        g_previousHandler = qInstallMessageHandler(keepLogLine);
}

QStringList SetupWindow::logLines()
{
    QMutexLocker lock(&g_logLock);
    return g_log;
}

SetupWindow::SetupWindow(Manager *manager, const ProductInfo &product, const SetupOptions &options,
                         const QString &package, QWidget *parent)
    : QDialog(parent)
    , m_manager(manager)
    , m_task(manager)
    , m_product(product)
    , m_options(options)
    , m_package(package)
{
    setObjectName(QStringLiteral("setupWindow"));
    setWindowTitle(tr("%1 Setup").arg(m_product.name));
    setWindowFlags(Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint);

    auto *layout = new QVBoxLayout(this);
    auto *header = new QWidget(this);
    header->setAutoFillBackground(true);
    header->setBackgroundRole(QPalette::Base);
    auto *headerLayout = new QVBoxLayout(header);
    m_title = new QLabel(header);
    QFont big = m_title->font();
    big.setPointSizeF(big.pointSizeF() * 1.4);
    big.setBold(true);
    m_title->setFont(big);
    m_title->setWordWrap(true);
    m_subtitle = wrapped(QString(), header);
    headerLayout->addWidget(m_title);
    headerLayout->addWidget(m_subtitle);
    layout->addWidget(header);

    m_pages = new QStackedWidget(this);
    layout->addWidget(m_pages, 1);

    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    m_back = new QPushButton(tr("< &Back"), this);
    m_back->setObjectName(QStringLiteral("backButton"));
    m_next = new QPushButton(tr("&Next >"), this);
    m_next->setObjectName(QStringLiteral("nextButton"));
    m_cancel = new QPushButton(tr("Cancel"), this);
    m_cancel->setObjectName(QStringLiteral("cancelButton"));
    buttons->addWidget(m_back);
    buttons->addWidget(m_next);
    buttons->addWidget(m_cancel);
    layout->addLayout(buttons);
    connect(m_back, &QPushButton::clicked, this, &SetupWindow::back);
    connect(m_next, &QPushButton::clicked, this, &SetupWindow::next);
    connect(m_cancel, &QPushButton::clicked, this, &SetupWindow::cancel);

    buildWelcome();
    if (m_options.mode == SetupOptions::Install) {
        if (!m_product.licence.isEmpty())
            buildLicence();
        buildFolder();
        if (!m_product.additions.isEmpty())
            buildComponents();
    }
    buildProgress();
    buildFinish();
    buildError();

    connect(&m_task, &SetupTask::progress, this, [this](double p) { m_bar->setValue(qRound(p * 10)); });
    connect(&m_task, &SetupTask::stageChanged, this, [this](const QString &stage) {
        m_stage->setText(stage + QStringLiteral("\u2026"));
        m_transfer->clear();
    });
    connect(&m_task, &SetupTask::transfer, this, [this](qint64 received, qint64 total, double rate) {
        const QLocale locale;
        QString text = total > 0 ? tr("%1 of %2").arg(locale.formattedDataSize(received), locale.formattedDataSize(total))
                                 : QString();
        if (rate > 0)
            text += (text.isEmpty() ? QString() : QStringLiteral(", ")) + tr("%1/s").arg(locale.formattedDataSize(qint64(rate)));
        m_transfer->setText(text);
    });
    connect(&m_task, &SetupTask::succeeded, this, [this] {
        if (!std::exchange(m_undoing, false)) {
            showPage(m_finishPage);
            return;
        }
        m_errorText->setText(tr("Setup was cancelled, and what it had placed in %1 was removed.")
                                 .arg(QDir::toNativeSeparators(installFolder())));
        m_removePlaced->hide();
        showPage(m_errorPage);
    });
    connect(&m_task, &SetupTask::failed, this, [this](CBEnum::ErrorCode code) {
        m_undoing = false;
        showFailure(code);
    });
    connect(&m_task, &SetupTask::cancelled, this, &SetupWindow::showCancelled);

    // Sized from the font, so larger fonts and scale factors get a larger window.
    const QFontMetrics metrics(font());
    resize(qMax(sizeHint().width(), metrics.averageCharWidth() * 78), qMax(sizeHint().height(), metrics.height() * 26));
    showPage(m_flow.first());
}

QString SetupWindow::installFolder() const
{
    if (m_folder)
        return QDir::cleanPath(QDir::current().absoluteFilePath(m_folder->text().trimmed()));
    if (!m_options.path.isEmpty())
        return m_options.path;
    return m_manager->installPath().isEmpty() ? m_product.installPath : QDir::cleanPath(m_manager->installPath());
}

QWidget *SetupWindow::addPage(const QString &name, const QString &title)
{
    auto *page = new QWidget(m_pages);
    page->setObjectName(name);
    page->setProperty("pageTitle", title);
    auto *layout = new QVBoxLayout(page);
    Q_UNUSED(layout);
    m_pages->addWidget(page);
    return page;
}

void SetupWindow::buildWelcome()
{
    const QString name = m_product.name;
    const QString version = m_product.version.isEmpty() ? QString() : QStringLiteral(" ") + m_product.version;
    QString text;
    switch (m_options.mode) {
    case SetupOptions::Install:
        m_welcome = addPage(QStringLiteral("welcomePage"), tr("Welcome"));
        text = tr("This will install %1%2 on your computer.").arg(name, version);
        text += QStringLiteral("\n\n") + (m_package.isEmpty() ? tr("The package is downloaded from the publisher's server.")
                                                            : tr("The package is taken from %1.").arg(QDir::toNativeSeparators(m_package)));
        break;
    case SetupOptions::Update:
        m_welcome = addPage(QStringLiteral("welcomePage"), tr("Update"));
        text = tr("This will update %1 in %2 to the newest version.").arg(name, QDir::toNativeSeparators(installFolder()));
        break;
    case SetupOptions::Uninstall:
        m_welcome = addPage(QStringLiteral("confirmPage"), tr("Uninstall"));
        text = tr("This will remove %1 from %2.").arg(name, QDir::toNativeSeparators(installFolder()));
        break;
    }
    // The welcome page of an update or uninstall is the last before the work:
    // its button says what it starts.
    text += QStringLiteral("\n\n")
        + (m_options.mode == SetupOptions::Uninstall ? tr("Click Uninstall to remove it, or Cancel to leave setup.")
           : m_options.mode == SetupOptions::Update  ? tr("Click Update to continue, or Cancel to leave setup.")
                                                     : tr("Click Next to continue, or Cancel to leave setup."));
    m_welcome->layout()->addWidget(wrapped(text, m_welcome));
    static_cast<QVBoxLayout *>(m_welcome->layout())->addStretch(1);
    m_flow << m_welcome;
}

void SetupWindow::buildLicence()
{
    m_licencePage = addPage(QStringLiteral("licencePage"), tr("Licence agreement"));
    auto *layout = static_cast<QVBoxLayout *>(m_licencePage->layout());
    layout->addWidget(wrapped(tr("Please read the licence agreement."), m_licencePage));
    auto *text = new QPlainTextEdit(m_product.licence, m_licencePage);
    text->setReadOnly(true);
    text->setObjectName(QStringLiteral("licenceText"));
    layout->addWidget(text, 1);
    m_accept = new QCheckBox(tr("I &accept the licence agreement"), m_licencePage);
    m_accept->setObjectName(QStringLiteral("acceptLicence"));
    layout->addWidget(m_accept);
    connect(m_accept, &QCheckBox::toggled, this, &SetupWindow::updateButtons);
    m_flow << m_licencePage;
}

void SetupWindow::buildFolder()
{
    m_folderPage = addPage(QStringLiteral("folderPage"), tr("Install folder"));
    auto *layout = static_cast<QVBoxLayout *>(m_folderPage->layout());
    auto *label = wrapped(tr("&Install %1 in this folder:").arg(m_product.name), m_folderPage);
    layout->addWidget(label);
    auto *row = new QHBoxLayout;
    m_folder = new QLineEdit(QDir::toNativeSeparators(m_options.path.isEmpty() ? m_product.installPath : m_options.path),
                             m_folderPage);
    m_folder->setObjectName(QStringLiteral("folderEdit"));
    label->setBuddy(m_folder);
    auto *browse = new QPushButton(tr("B&rowse\u2026"), m_folderPage);
    browse->setObjectName(QStringLiteral("browseButton"));
    row->addWidget(m_folder, 1);
    row->addWidget(browse);
    layout->addLayout(row);
    m_space = wrapped(QString(), m_folderPage);
    m_space->setObjectName(QStringLiteral("spaceLabel"));
    layout->addWidget(m_space);
    m_folderMessage = wrapped(QString(), m_folderPage);
    m_folderMessage->setObjectName(QStringLiteral("folderMessage"));
    QPalette warning = m_folderMessage->palette();
    warning.setColor(QPalette::WindowText, QColor(0xb0, 0x20, 0x20));
    m_folderMessage->setPalette(warning);
    layout->addWidget(m_folderMessage);
    layout->addStretch(1);
    connect(browse, &QPushButton::clicked, this, [this] {
        const QString chosen = QFileDialog::getExistingDirectory(this, tr("Choose the install folder"),
                                                                 existingAncestor(installFolder()));
        if (!chosen.isEmpty())
            m_folder->setText(QDir::toNativeSeparators(chosen));
    });
    connect(m_folder, &QLineEdit::textChanged, this, [this] {
        m_folderMessage->clear();
        updateSpace();
        updateButtons();
    });
    updateSpace();
    m_flow << m_folderPage;
}

void SetupWindow::buildComponents()
{
    m_componentsPage = addPage(QStringLiteral("componentsPage"), tr("Components"));
    auto *layout = static_cast<QVBoxLayout *>(m_componentsPage->layout());
    layout->addWidget(wrapped(tr("Choose the additions to install with %1:").arg(m_product.name), m_componentsPage));
    for (const QString &name : qAsConst(m_product.additions)) {
        auto *box = new QCheckBox(name, m_componentsPage);
        box->setObjectName(QStringLiteral("addition_") + name);
        box->setChecked(!m_options.additionsGiven || m_options.additions.contains(name));
        layout->addWidget(box);
        const ProductInfo::Component about = m_product.components.value(name);
        QString text = about.description;
        if (about.size > 0)
            text += (text.isEmpty() ? QString() : QStringLiteral(" ")) + tr("(%1)").arg(QLocale().formattedDataSize(about.size));
        if (!text.isEmpty()) {
            QLabel *label = wrapped(text, m_componentsPage);
            label->setObjectName(QStringLiteral("about_") + name);
            label->setContentsMargins(style()->pixelMetric(QStyle::PM_IndicatorWidth) + 6, 0, 0, 0);
            layout->addWidget(label);
        }
        m_additions << box;
    }
    layout->addStretch(1);
    m_flow << m_componentsPage;
}

void SetupWindow::buildProgress()
{
    const QString title = m_options.mode == SetupOptions::Uninstall ? tr("Uninstalling")
        : m_options.mode == SetupOptions::Update                    ? tr("Updating")
                                                                    : tr("Installing");
    m_progressPage = addPage(QStringLiteral("progressPage"), title);
    auto *layout = static_cast<QVBoxLayout *>(m_progressPage->layout());
    m_stage = wrapped(tr("Preparing\u2026"), m_progressPage);
    m_stage->setObjectName(QStringLiteral("stageLabel"));
    layout->addWidget(m_stage);
    m_bar = new QProgressBar(m_progressPage);
    m_bar->setObjectName(QStringLiteral("progressBar"));
    m_bar->setRange(0, 1000);
    m_bar->setFormat(QStringLiteral("%p%"));
    layout->addWidget(m_bar);
    m_transfer = wrapped(QString(), m_progressPage);
    m_transfer->setObjectName(QStringLiteral("transferLabel"));
    layout->addWidget(m_transfer);
    layout->addStretch(1);
    m_flow << m_progressPage;
}

void SetupWindow::buildFinish()
{
    m_finishPage = addPage(QStringLiteral("finishPage"), tr("Done"));
    auto *layout = static_cast<QVBoxLayout *>(m_finishPage->layout());
    m_finishText = wrapped(QString(), m_finishPage);
    layout->addWidget(m_finishText);
    if (m_options.mode != SetupOptions::Uninstall) {
        m_openFolder = new QCheckBox(tr("&Open the install folder"), m_finishPage);
        m_openFolder->setObjectName(QStringLiteral("openFolder"));
        layout->addWidget(m_openFolder);
        if (!m_product.program.isEmpty()) {
            m_launch = new QCheckBox(tr("&Start %1").arg(m_product.name), m_finishPage);
            m_launch->setObjectName(QStringLiteral("launchProgram"));
            layout->addWidget(m_launch);
        }
    }
    layout->addStretch(1);
    m_flow << m_finishPage;
}

void SetupWindow::buildError()
{
    m_errorPage = addPage(QStringLiteral("errorPage"), tr("Setup did not finish"));
    auto *layout = static_cast<QVBoxLayout *>(m_errorPage->layout());
    m_errorText = wrapped(QString(), m_errorPage);
    m_errorText->setObjectName(QStringLiteral("errorText"));
    layout->addWidget(m_errorText);
    m_errorKey = wrapped(QString(), m_errorPage);
    m_errorKey->setObjectName(QStringLiteral("errorKey"));
    layout->addWidget(m_errorKey);
    auto *row = new QHBoxLayout;
    m_retry = new QPushButton(tr("&Retry"), m_errorPage);
    m_retry->setObjectName(QStringLiteral("retryButton"));
    m_saveLog = new QPushButton(tr("&Save log\u2026"), m_errorPage);
    m_saveLog->setObjectName(QStringLiteral("saveLogButton"));
    // The engine does not roll a cancelled install back: what it placed is
    // removed by the product's own uninstall steps, when the user asks.
    m_removePlaced = new QPushButton(tr("Re&move them"), m_errorPage);
    m_removePlaced->setObjectName(QStringLiteral("removePlacedButton"));
    m_removePlaced->hide();
    connect(m_removePlaced, &QPushButton::clicked, this, [this] {
        m_undoing = true;
        showPage(m_progressPage);
        m_bar->setValue(0);
        m_task.start(SetupTask::Uninstall, installFolder(), QString());
    });
    row->addWidget(m_retry);
    row->addWidget(m_removePlaced);
    row->addWidget(m_saveLog);
    row->addStretch(1);
    layout->addLayout(row);
    layout->addStretch(1);
    connect(m_retry, &QPushButton::clicked, this, [this] {
        showPage(m_progressPage);
        startTask();
    });
    connect(m_saveLog, &QPushButton::clicked, this, &SetupWindow::saveLog);
}

void SetupWindow::showPage(QWidget *page)
{
    m_pages->setCurrentWidget(page);
    m_title->setText(page->property("pageTitle").toString());
    // An update installs whatever the repository has now, not the version the
    // configuration was written for: the header names none then.
    const QString version = m_product.version.isEmpty() || m_options.mode == SetupOptions::Update
        ? QString()
        : QStringLiteral(" ") + m_product.version;
    const QString publisher = m_product.publisher.isEmpty() ? QString() : tr(" by %1").arg(m_product.publisher);
    m_subtitle->setText(m_product.name + version + publisher);
    if (page == m_finishPage) {
        const QString folder = QDir::toNativeSeparators(installFolder());
        m_finishText->setText(m_options.mode == SetupOptions::Uninstall ? tr("%1 has been removed.").arg(m_product.name)
                              : m_options.mode == SetupOptions::Update
                                  ? tr("%1 in %2 is up to date.").arg(m_product.name, folder) + QLatin1Char(' ') + m_task.deltaReport()
                                  : tr("%1 has been installed in %2.").arg(m_product.name, folder));
    }
    updateButtons();
    // The first control of the page takes the focus, so Tab and Space work at once.
    QWidget *first = page->nextInFocusChain();
    while (first && page->isAncestorOf(first) && !(first->isEnabled() && first->focusPolicy() & Qt::TabFocus))
        first = first->nextInFocusChain();
    if (first && page->isAncestorOf(first))
        first->setFocus(Qt::TabFocusReason);
    else
        m_next->setFocus(Qt::TabFocusReason);
}

void SetupWindow::updateButtons()
{
    QWidget *page = m_pages->currentWidget();
    const int index = m_flow.indexOf(page);
    const bool working = page == m_progressPage;
    const bool end = page == m_finishPage || page == m_errorPage;
    m_back->setVisible(!end);
    m_back->setEnabled(index > 0 && !working);
    m_next->setVisible(page != m_errorPage);
    m_next->setEnabled(!working && (page != m_licencePage || m_accept->isChecked())
                       && (page != m_folderPage || !m_folder->text().trimmed().isEmpty()));
    const bool lastBeforeWork = index >= 0 && index + 1 < m_flow.size() && m_flow.at(index + 1) == m_progressPage;
    m_next->setText(page == m_finishPage ? tr("&Finish")
                    : !lastBeforeWork    ? tr("&Next >")
                    : m_options.mode == SetupOptions::Uninstall ? tr("&Uninstall")
                    : m_options.mode == SetupOptions::Update    ? tr("&Update")
                                                                : tr("&Install"));
    m_next->setDefault(true);
    m_cancel->setText(end ? tr("&Close") : tr("Cancel"));
    m_cancel->setVisible(page != m_finishPage);
}

void SetupWindow::next()
{
    QWidget *page = m_pages->currentWidget();
    if (page == m_finishPage) {
        finishAndClose();
        return;
    }
    if (page == m_folderPage && !checkFolder())
        return;
    const int index = m_flow.indexOf(page);
    if (index < 0 || index + 1 >= m_flow.size())
        return;
    QWidget *following = m_flow.at(index + 1);
    showPage(following);
    if (following == m_progressPage)
        startTask();
}

void SetupWindow::back()
{
    const int index = m_flow.indexOf(m_pages->currentWidget());
    if (index > 0 && m_pages->currentWidget() != m_progressPage)
        showPage(m_flow.at(index - 1));
}

bool SetupWindow::confirm(const QString &name, const QString &question)
{
    QMessageBox box(QMessageBox::Question, windowTitle(), question, QMessageBox::Yes | QMessageBox::No, this);
    box.setObjectName(name);
    box.setDefaultButton(QMessageBox::No);
    return box.exec() == QMessageBox::Yes;
}

void SetupWindow::cancel()
{
    QWidget *page = m_pages->currentWidget();
    if (page == m_errorPage || page == m_finishPage) {
        done(page == m_finishPage ? Accepted : Rejected);
        return;
    }
    if (page == m_progressPage) {
        if (m_task.isRunning() && confirm(QStringLiteral("confirmCancel"), tr("Stop setup now?")))
            m_task.cancel();
        return;
    }
    if (confirm(QStringLiteral("confirmQuit"), tr("Leave setup? %1 will not be installed.").arg(m_product.name)))
        done(Rejected);
}

void SetupWindow::reject()
{
    cancel();
}

void SetupWindow::closeEvent(QCloseEvent *event)
{
    // done() hides the window itself; a close from the title bar asks first.
    event->ignore();
    cancel();
}

void SetupWindow::updateSpace()
{
    const QString folder = installFolder();
    const QStorageInfo storage(existingAncestor(folder));
    const qint64 needed = m_package.isEmpty() ? m_manager->packageSize() : QFileInfo(m_package).size();
    const QLocale locale;
    QString text = storage.isValid() ? tr("Space available: %1.").arg(locale.formattedDataSize(storage.bytesAvailable()))
                                     : QString();
    if (needed > 0)
        text = tr("Space required: at least %1.").arg(locale.formattedDataSize(needed)) + QLatin1Char(' ') + text;
    m_space->setText(text);
}

bool SetupWindow::checkFolder()
{
    const QString folder = installFolder();
    const QString ancestor = existingAncestor(folder);
    QString problem;
    if (QFileInfo(folder).exists() && !QFileInfo(folder).isDir()) {
        problem = tr("%1 is a file, not a folder. Choose a folder.").arg(QDir::toNativeSeparators(folder));
    } else {
        // Only a real write tells: permissions, read-only media and
        // administrator rights all play a part.
        QTemporaryFile probe(QDir(ancestor).filePath(QStringLiteral(".corbeth-setup-XXXXXX")));
        if (!QFileInfo(ancestor).isDir() || !probe.open()) {
            problem = tr("Setup cannot write to %1. Choose a folder you may write to, or run setup as an administrator.")
                          .arg(QDir::toNativeSeparators(ancestor));
        }
    }
    const qint64 needed = m_package.isEmpty() ? m_manager->packageSize() : QFileInfo(m_package).size();
    const QStorageInfo storage(ancestor);
    if (problem.isEmpty() && needed > 0 && storage.isValid() && storage.bytesAvailable() < needed) {
        const QLocale locale;
        problem = tr("There is not enough space on %1: %2 needed, %3 available.")
                      .arg(QDir::toNativeSeparators(storage.rootPath()), locale.formattedDataSize(needed),
                           locale.formattedDataSize(storage.bytesAvailable()));
    }
    m_folderMessage->setText(problem);
    if (!problem.isEmpty())
        m_folder->setFocus();
    return problem.isEmpty();
}

void SetupWindow::startTask()
{
    m_lastError = CBEnum::EC_NoError;
    m_bar->setValue(0);
    m_stage->setText(tr("Preparing\u2026"));
    m_transfer->clear();
    updateButtons();
    SetupTask::Kind kind = SetupTask::Install;
    if (m_options.mode == SetupOptions::Uninstall)
        kind = SetupTask::Uninstall;
    else if (m_options.mode == SetupOptions::Update)
        kind = SetupTask::Update;
    if (kind == SetupTask::Install) {
        QStringList chosen;
        for (const QCheckBox *box : qAsConst(m_additions))
            if (box->isChecked())
                chosen << box->text();
        m_manager->setCurrentAddtions(chosen);
    }
    const QString path = kind == SetupTask::Install || !m_options.path.isEmpty() ? installFolder() : QString();
    m_task.start(kind, path, m_package);
}

void SetupWindow::showCancelled()
{
    // What the cancelled install placed, its download cache aside (a retry resumes from it).
    const QString folder = installFolder();
    const QString cache = QDir(folder).filePath(QStringLiteral("arvenorDownloadCache"));
    int placed = 0;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (m_options.mode == SetupOptions::Install && it.hasNext())
        placed += it.next().startsWith(cache + QLatin1Char('/')) ? 0 : 1;
    m_errorText->setText(placed == 0
                             ? tr("Setup was cancelled before it placed any file. Retry starts again.")
                             : tr("Setup was cancelled. %1 it had already placed %2 left in %3, without shortcuts "
                                  "or an uninstall entry. Remove them, or Retry to finish the job.")
                                   .arg(placed == 1 ? tr("1 file") : tr("%1 files").arg(placed),
                                        placed == 1 ? tr("is") : tr("are"), QDir::toNativeSeparators(folder)));
    m_errorKey->clear();
    m_removePlaced->setVisible(placed > 0);
    showPage(m_errorPage);
}

void SetupWindow::showFailure(CBEnum::ErrorCode code)
{
    m_lastError = code;
    m_removePlaced->hide();
    const QString cause = FailureCause::text();
    m_errorText->setText(cause.isEmpty() ? sentenceFor(code) : tr("Setup could not finish: %1").arg(cause));
    m_errorKey->setText(tr("Error code: %1 (0x%2)").arg(keyName(code)).arg(quint32(code), 0, 16));
    showPage(m_errorPage);
}

void SetupWindow::saveLog()
{
    const QString file = QFileDialog::getSaveFileName(this, tr("Save the setup log"),
                                                      QDir::home().filePath(QStringLiteral("corbeth-setup.log")));
    if (file.isEmpty())
        return;
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Text) || out.write(logLines().join(QLatin1Char('\n')).toUtf8()) < 0
        || !out.commit())
        QMessageBox::warning(this, windowTitle(), tr("The log could not be saved: %1").arg(out.errorString()));
}

void SetupWindow::finishAndClose()
{
    const QString folder = installFolder();
    if (m_openFolder && m_openFolder->isChecked())
        QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
    if (m_launch && m_launch->isChecked())
        QProcess::startDetached(m_product.programIn(folder), {}, folder);
    done(Accepted);
}

void SetupWindow::bringToFront()
{
    // As the platform utilities do for the client's window: restore it, then
    // raise and activate it.
    setWindowState(windowState() & ~Qt::WindowMinimized);
    showNormal();
    raise();
    activateWindow();
}

} // namespace Corbeth
