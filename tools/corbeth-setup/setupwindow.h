#ifndef CORBETH_SETUP_SETUPWINDOW_H
#define CORBETH_SETUP_SETUPWINDOW_H

#include "productinfo.h"
#include "setupoptions.h"
#include "setuptask.h"

#include <QtWidgets/QDialog>

class QCheckBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QStackedWidget;

namespace Corbeth {

// The installer window: a header with the product, one page at a time, and
// Back / Next / Cancel below. Install: welcome, licence, folder, components,
// progress, finish. Uninstall: confirmation, progress, done. Update: welcome,
// progress, done. Any failure or cancellation leads to a page with Retry.
class SetupWindow : public QDialog
{
    Q_OBJECT
public:
    // package: the offline package beside the program, or empty for online.
    SetupWindow(Manager *manager, const ProductInfo &product, const SetupOptions &options,
                const QString &package, QWidget *parent = nullptr);

    // Keeps every log line of this process for "Save log".
    static void captureLog();
    static QStringList logLines();

    // Shows the error page for a failure found before any page was used.
    void showFailure(CBEnum::ErrorCode code);
    QString installFolder() const;
    // The error the window last showed; EC_NoError after a cancellation or success.
    CBEnum::ErrorCode lastError() const { return m_lastError; }

public slots:
    void bringToFront();

protected:
    void closeEvent(QCloseEvent *event) override;
    void reject() override;

private:
    QWidget *addPage(const QString &name, const QString &title);
    void buildWelcome();
    void buildLicence();
    void buildFolder();
    void buildComponents();
    void buildProgress();
    void buildFinish();
    void buildError();

    void showPage(QWidget *page);
    void showCancelled();
    void updateButtons();
    void next();
    void back();
    void cancel();
    bool confirm(const QString &name, const QString &question);
    bool checkFolder();
    void updateSpace();
    void startTask();
    // The progress page, fresh, under the title of the work that now runs.
    void showProgress(const QString &title, const QString &stage);
    void saveLog();
    void finishAndClose();

    Manager *m_manager;
    SetupTask m_task;
    ProductInfo m_product;
    SetupOptions m_options;
    QString m_package;
    QList<QWidget *> m_flow;
    CBEnum::ErrorCode m_lastError = CBEnum::EC_NoError;

    QLabel *m_title = nullptr;
    QLabel *m_subtitle = nullptr;
    QStackedWidget *m_pages = nullptr;
    QPushButton *m_back = nullptr;
    QPushButton *m_next = nullptr;
    QPushButton *m_cancel = nullptr;

    QWidget *m_welcome = nullptr;
    QWidget *m_licencePage = nullptr;
    QCheckBox *m_accept = nullptr;
    QWidget *m_folderPage = nullptr;
    QLineEdit *m_folder = nullptr;
    QLabel *m_space = nullptr;
    QLabel *m_folderMessage = nullptr;
    QWidget *m_componentsPage = nullptr;
    QList<QCheckBox *> m_additions;
    QWidget *m_progressPage = nullptr;
    QString m_workTitle; // what the progress page is called while the chosen task runs
    QLabel *m_stage = nullptr;
    QProgressBar *m_bar = nullptr;
    QLabel *m_transfer = nullptr;
    QWidget *m_finishPage = nullptr;
    QLabel *m_finishText = nullptr;
    QCheckBox *m_openFolder = nullptr;
    QCheckBox *m_launch = nullptr;
    QWidget *m_errorPage = nullptr;
    QLabel *m_errorText = nullptr;
    QLabel *m_errorKey = nullptr;
    QPushButton *m_retry = nullptr;
    QPushButton *m_removePlaced = nullptr;
    // The cancelled install's files are being removed.
    QString m_upToDate; // what an update that found nothing newer said
    bool m_undoing = false;
    QPushButton *m_saveLog = nullptr;
};

} // namespace Corbeth

#endif // CORBETH_SETUP_SETUPWINDOW_H
