// The drop window's OLE drop target: it takes a list of files and nothing else.
#pragma once

#include <ole2.h>
#include <windows.h>

#include <string>
#include <vector>

class CDropTarget final : public IDropTarget
{
public:
    // Runs on the window's thread, where OLE calls the target.
    class Listener
    {
    public:
        virtual void OnHover(bool bHovering) = 0;
        // The names as they came, possibly none.
        virtual void OnFilesDropped(const std::vector<std::wstring>& names) = 0;

    protected:
        ~Listener() = default;
    };

    explicit CDropTarget(Listener& listener) : m_pListener(&listener) {}
    CDropTarget(const CDropTarget&) = delete;
    CDropTarget& operator=(const CDropTarget&) = delete;

    // The window is going: OLE may still hold the target, but nothing reaches the listener.
    void Detach() { m_pListener = nullptr; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE DragEnter(IDataObject* pDataObj, DWORD grfKeyState, POINTL pt,
                                        DWORD* pdwEffect) override;
    HRESULT STDMETHODCALLTYPE DragOver(DWORD grfKeyState, POINTL pt, DWORD* pdwEffect) override;
    HRESULT STDMETHODCALLTYPE DragLeave() override;
    HRESULT STDMETHODCALLTYPE Drop(IDataObject* pDataObj, DWORD grfKeyState, POINTL pt,
                                   DWORD* pdwEffect) override;

private:
    ~CDropTarget() = default;
    DWORD Effect(DWORD dwAllowed) const;
    void Hover(bool bHovering);

    LONG m_cRef = 1;
    Listener* m_pListener;
    bool m_bFiles = false; // what hovers is a list of files
};
