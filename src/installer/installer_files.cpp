// File operations: the cover-files step, the recursive copy and the removal
// step with its white list.
#include "installer/installer.h"

#include "logging_p.h"
#include "platform/filecontent.h"
#include "platform/protectedpath.h"
#include "platform/shortcut.h"
#include "platform/treeremover.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QMetaEnum>
#include <QtCore/QSaveFile>

namespace Corbeth {

namespace {

const QLatin1String kWhiteMarker(".WHITEFILE");
// The largest block read at once: a file without line breaks is copied in
// pieces of this size rather than read whole.
constexpr qint64 kMaxBlock = 1 << 20;

const char *levelName(ErrorLevel level)
{
    return QMetaEnum::fromType<ErrorLevel>().valueToKey(level);
}

enum class Copied { Done, NotOpened, NotWritten };

// Written under a temporary name beside target and renamed over it only once
// every byte is there: a full disk leaves the old file as it was. A link at
// target is replaced, never written through.
Copied copyFileContent(const QFileInfo &entry, const QString &target)
{
    if (QFileInfo(target).isSymLink())
        QFile::remove(target);
    QFile in(entry.absoluteFilePath());
    QSaveFile out(target);
    if (!in.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || !out.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        return Copied::NotOpened;
    // Installed programs stay executable; nobody but the owner may change them.
    const QFileDevice::Permissions permissions = entry.permissions() & ~(QFile::WriteGroup | QFile::WriteOther);
    if (!FileContent::copy(in, out, kMaxBlock) || !out.setPermissions(permissions) || !out.commit())
        return Copied::NotWritten;
    return Copied::Done;
}

// Moves each white-listed path aside under its marker name (hide) or gives it
// its name back.
void renameWhiteList(const Installer &installer, const QStringList &whiteList, bool hide)
{
    const char *step = hide ? "filesToWhite" : "whiteToFiles";
    for (const QString &file : whiteList) {
        const QString path = installer.expandPath(file);
        const QString marked = path + kWhiteMarker;
        const QString &from = hide ? path : marked;
        const QString &shown = hide ? marked : file;
        if (!QFileInfo::exists(from))
            qCWarning(lcCorbeth) << step << "not exist" << shown << step;
        else if (!QDir().rename(from, hide ? marked : path))
            qCWarning(lcCorbeth) << step << "not rename" << shown << step;
    }
    qCDebug(lcCorbeth) << step << "success";
}

} // namespace

bool Installer::cutFiles(const QList<CoverFileInfo> &items)
{
    if (items.isEmpty())
        return true;
    for (const CoverFileInfo &item : items) {
        const QString src = expandPath(item.pair.first);
        const QString dest = expandPath(item.pair.second);
        qCDebug(lcCorbeth) << "cover files" << src << dest << levelName(item.level);
        if (src == dest) {
            qCDebug(lcCorbeth) << "src == dest" << src << dest;
            continue;
        }
        if (!checkPathExist(item.level, {{QStringLiteral("path"), src}}, QStringLiteral("cutFiles")))
            return false;
        // A copy that could not start is only logged; one that could not be
        // completed (a full disk) fails the step, so nothing relies on it.
        m_writeFailed = false;
        coverFile(src, dest);
        if (m_writeFailed) {
            qCCritical(lcCorbeth) << "cover files incomplete" << src << dest;
            return false;
        }
    }
    return true;
}

bool Installer::checkPathExist(ErrorLevel level, const QVariantMap &params, const QString &name)
{
    if (level == EL_Warn || name != QLatin1String("cutFiles"))
        return true;
    const QString path = params.value(QStringLiteral("path")).toString();
    const QFileInfo info(path);
    if (info.isFile())
        return true;
    const QString dir = path.contains(QLatin1Char('*')) ? info.absolutePath() : path;
    qCDebug(lcCorbeth) << "absolute path" << dir;
    if (QDir(dir).exists())
        return true;
    qCCritical(lcCorbeth) << "dir not exist" << dir;
    return false;
}

bool Installer::coverFile(const QString &src, const QString &dest)
{
    const QFileInfo info(src);
    if (info.isFile()) {
        const Copied copied = copyFileContent(info, dest);
        if (copied == Copied::Done)
            return true;
        m_writeFailed = copied == Copied::NotWritten;
        qCCritical(lcCorbeth) << "file copy fail " << src << dest;
        return false;
    }

    const QString base = info.completeBaseName();
    const QString suffix = info.completeSuffix();
    qCDebug(lcCorbeth) << "src basename" << base << "suffix" << suffix;
    const QDir::Filters filesOnly(0x6002);
    const QDir::Filters allEntries(0x6007);
    const QLatin1String star("*");
    bool copied;
    if (base == star && suffix == star)
        copied = copyDir(info.absolutePath(), dest, filesOnly, QString());
    else if (base != star || suffix.isEmpty())
        copied = copyDir(src, dest, allEntries, QString());
    else
        copied = copyDir(info.absolutePath(), dest, filesOnly, suffix);
    // The folder branches answer inverted; callers only read the log.
    if (!copied)
        return true;
    qCCritical(lcCorbeth) << Q_FUNC_INFO << __LINE__;
    return false;
}

bool Installer::copyDir(const QString &srcDir, const QString &destDir, QDir::Filters filters, const QString &suffix)
{
    return copyTree(srcDir, destDir, filters, suffix, QDir::cleanPath(QDir(srcDir).absolutePath()));
}

// root is the folder the copy started from: links that stay inside it are
// copied as links, never followed, so a link to "." cannot nest copies.
bool Installer::copyTree(const QString &srcDir, const QString &destDir, QDir::Filters filters, const QString &suffix,
                         const QString &root)
{
    const QDir source(srcDir);
    if (!source.exists()) {
        qCWarning(lcCorbeth).noquote() << QStringLiteral("%1 not exist").arg(srcDir);
        return true;
    }
    const QString destPath = QDir(destDir).absolutePath();
    makeDir(destPath);
    const QFileInfoList entries = source.entryInfoList(filters, QDir::NoSort);
    for (const QFileInfo &entry : entries) {
        if (!suffix.isEmpty() && entry.completeSuffix() != suffix)
            continue;
        const QString target = destPath + QDir::separator() + entry.fileName();
        if (entry.isSymLink()) {
            copyLink(entry, target, root);
        } else if (entry.isDir()) {
            makeDir(target);
            copyTree(entry.absoluteFilePath(), target, filters, suffix, root);
            if (m_writeFailed)
                return false;
        } else if (entry.isFile()) {
            const Copied copied = copyFileContent(entry, target);
            if (copied == Copied::NotOpened)
                qCCritical(lcCorbeth) << "open fail" << entry.absoluteFilePath() << target;
            else if (copied == Copied::NotWritten)
                qCCritical(lcCorbeth) << "file write fail" << entry.absoluteFilePath() << target;
            m_writeFailed = copied == Copied::NotWritten;
            if (copied != Copied::Done)
                return false;
        }
    }
    return true;
}

void Installer::copyLink(const QFileInfo &link, const QString &target, const QString &root)
{
    const QString pointsTo = QDir::cleanPath(link.symLinkTarget());
    if (pointsTo != root && !pointsTo.startsWith(root + QLatin1Char('/'))) {
        qCWarning(lcCorbeth) << "link leaves the package, not copied" << link.filePath() << pointsTo;
        return;
    }
    // Relative, so the copy points into the copied tree.
    const QString text = link.absoluteDir().relativeFilePath(pointsTo);
    QFile::remove(target);
    if (!QFile::link(text.isEmpty() ? QStringLiteral(".") : text, target))
        qCCritical(lcCorbeth) << "link copy fail" << link.filePath() << target;
}

bool Installer::makeDir(const QString &path)
{
    if (QDir(path).exists())
        return true;
    if (!QDir().mkpath(path)) {
        qCDebug(lcCorbeth) << "dir mk fail" << path;
        return false;
    }
    return true;
}

bool Installer::removeFiles(const QStringList &files, const QStringList &whiteList)
{
    filesToWhite(whiteList);
    for (const QString &file : files) {
        // A shortcut named as on Windows is removed as this platform made it.
        const QString expanded = Shortcut::fileFor(expandPath(file));
        // An unset variable can leave "" (the working folder), "/bin" or a
        // shared folder in place of a file in it ("${desktop}/${tag}"); ".."
        // is resolved before the check, and the path checked is the path removed.
        const std::filesystem::path named = std::filesystem::u8path(expanded.toStdString());
        const bool isProtected = expanded.isEmpty() || hasEmptyVariable(file) || ProtectedPath::isProtected(named);
        const QString path = isProtected ? expanded : QString::fromStdString(ProtectedPath::located(named).u8string());
        if (!isProtected && QFile::remove(path))
            qCDebug(lcCorbeth) << "remove file sccuess" << path;
        else if (!isProtected && removeDir(QDir(path)))
            qCDebug(lcCorbeth) << path << "remove dir success";
        else
            qCWarning(lcCorbeth) << "remove file erorr" << path << file;
    }
    whiteToFiles(whiteList);
    return true;
}

bool Installer::removeDir(const QDir &dir)
{
    // Hidden entries are not the removal's (the folder listings of the
    // contract leave them out), nor are white-listed ones; dangling links,
    // FIFOs and sockets are, so they do not keep the folder. Links are removed
    // as links, never followed.
    const QString path = dir.absolutePath();
    const std::filesystem::path top = std::filesystem::u8path(path.toStdString());
    const auto rule = [&top](const std::filesystem::path &entry) {
        const std::string name = entry.filename().u8string();
        const bool kept = name.rfind('.', 0) == 0 || entry.u8string().find(kWhiteMarker.data()) != std::string::npos;
        return kept && entry != top ? TreeRemover::Entry::Keep : TreeRemover::Entry::Remove;
    };
    switch (TreeRemover::remove(top, rule)) {
    case TreeRemover::Status::Missing:
        qCCritical(lcCorbeth) << "removeDir" << "not exist" << dir.path();
        return false;
    case TreeRemover::Status::Refused:
        qCCritical(lcCorbeth) << "removeDir" << "refused" << path;
        return false;
    case TreeRemover::Status::Incomplete:
        qCWarning(lcCorbeth) << "path exist file" << path;
        return true;
    case TreeRemover::Status::Done:
        break;
    }
    return true;
}

void Installer::recoverWhiteList()
{
    QStringList whiteList;
    for (const InstallInfoPtr &info : {m_uninstallInfo, m_updateInfo}) {
        if (info)
            whiteList += info->whiteList;
    }
    for (const QString &file : qAsConst(whiteList)) {
        const QString path = expandPath(file);
        const QFileInfo marked(path + kWhiteMarker);
        if (path.isEmpty() || (!marked.exists() && !marked.isSymLink()))
            continue;
        // The marked file is the user's; a default made since gives way to it.
        std::error_code error;
        std::filesystem::rename(std::filesystem::u8path(marked.filePath().toStdString()),
                                std::filesystem::u8path(path.toStdString()), error);
        if (error)
            qCWarning(lcCorbeth) << "white file not recovered" << marked.filePath() << error.message().c_str();
        else
            qCInfo(lcCorbeth) << "white file recovered" << path;
    }
}

void Installer::filesToWhite(const QStringList &whiteList)
{
    renameWhiteList(*this, whiteList, true);
}

void Installer::whiteToFiles(const QStringList &whiteList)
{
    renameWhiteList(*this, whiteList, false);
}

} // namespace Corbeth
