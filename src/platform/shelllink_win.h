#ifndef CORBETH_SHELLLINK_WIN_H
#define CORBETH_SHELLLINK_WIN_H

#include <QtCore/QDir>
#include <QtCore/QString>

#include <windows.h>

#include <shlobj.h>

namespace Corbeth {

// A .lnk file opened through the shell's IShellLinkW, with COM set up on the
// calling thread while it lives (the engine writes shortcuts on pool
// threads), unless the thread already has it in another mode. Header-only:
// the tests read shortcuts with it too.
class ShellLink
{
public:
    ShellLink(const QString &lnk, DWORD mode)
        : m_com(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))
        , m_path(QDir::toNativeSeparators(lnk))
    {
        m_result = CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                    reinterpret_cast<void **>(&m_link));
        if (SUCCEEDED(m_result))
            m_result = m_link->QueryInterface(IID_IPersistFile, reinterpret_cast<void **>(&m_file));
        if (SUCCEEDED(m_result))
            m_result = m_file->Load(wide(m_path), mode);
    }
    ~ShellLink()
    {
        if (m_file)
            m_file->Release();
        if (m_link)
            m_link->Release();
        if (SUCCEEDED(m_com))
            CoUninitialize();
    }
    ShellLink(const ShellLink &) = delete;
    ShellLink &operator=(const ShellLink &) = delete;

    // The first failure so far, or success.
    HRESULT result() const { return m_result; }

    // Shows the first icon of icon (an .ico file, a program or a DLL) and saves the file.
    bool setIcon(const QString &icon)
    {
        if (SUCCEEDED(m_result))
            m_result = m_link->SetIconLocation(wide(QDir::toNativeSeparators(icon)), 0);
        if (SUCCEEDED(m_result))
            m_result = m_file->Save(wide(m_path), TRUE);
        return SUCCEEDED(m_result);
    }
    // The icon file it names; empty when it names none.
    QString icon() const
    {
        wchar_t icon[MAX_PATH] = {};
        int index = 0;
        if (SUCCEEDED(m_result))
            m_link->GetIconLocation(icon, MAX_PATH, &index);
        return QDir::fromNativeSeparators(QString::fromWCharArray(icon));
    }

private:
    static const wchar_t *wide(const QString &text) { return reinterpret_cast<const wchar_t *>(text.utf16()); }

    HRESULT m_com;
    HRESULT m_result = S_OK;
    QString m_path;
    IShellLinkW *m_link = nullptr;
    IPersistFile *m_file = nullptr;
};

} // namespace Corbeth

#endif // CORBETH_SHELLLINK_WIN_H
