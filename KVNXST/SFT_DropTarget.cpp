#include "SFT_DropTarget.h"

#include "KvLogging.h"
#include "SFT_DropFiles.h"

#include <shlobj.h>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

namespace
{

FORMATETC FileListFormat()
{
    return FORMATETC{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
}

} // namespace

HRESULT STDMETHODCALLTYPE CDropTarget::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDropTarget))
    {
        *ppv = static_cast<IDropTarget*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CDropTarget::AddRef()
{
    return static_cast<ULONG>(InterlockedIncrement(&m_cRef));
}

ULONG STDMETHODCALLTYPE CDropTarget::Release()
{
    const LONG cRef = InterlockedDecrement(&m_cRef);
    if (cRef == 0)
        delete this;
    return static_cast<ULONG>(cRef);
}

DWORD CDropTarget::Effect(DWORD dwAllowed) const
{
    return m_bFiles && m_pListener != nullptr && (dwAllowed & DROPEFFECT_COPY) != 0 ? DROPEFFECT_COPY
                                                                                    : DROPEFFECT_NONE;
}

void CDropTarget::Hover(bool bHovering)
{
    if (m_pListener != nullptr)
        m_pListener->OnHover(bHovering);
}

HRESULT STDMETHODCALLTYPE CDropTarget::DragEnter(IDataObject* pDataObj, DWORD, POINTL, DWORD* pdwEffect)
{
    if (pdwEffect == nullptr)
        return E_INVALIDARG;
    FORMATETC format = FileListFormat();
    m_bFiles = pDataObj != nullptr && pDataObj->QueryGetData(&format) == S_OK;
    if (!m_bFiles)
        LOG4CXX_INFO(logger, L"Refused: what is dragged here is not a list of files.");
    *pdwEffect = Effect(*pdwEffect);
    Hover(*pdwEffect != DROPEFFECT_NONE);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CDropTarget::DragOver(DWORD, POINTL, DWORD* pdwEffect)
{
    if (pdwEffect == nullptr)
        return E_INVALIDARG;
    *pdwEffect = Effect(*pdwEffect);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CDropTarget::DragLeave()
{
    m_bFiles = false;
    Hover(false);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CDropTarget::Drop(IDataObject* pDataObj, DWORD, POINTL, DWORD* pdwEffect)
{
    if (pdwEffect == nullptr)
        return E_INVALIDARG;
    Hover(false);
    *pdwEffect = Effect(*pdwEffect);
    m_bFiles = false;
    if (*pdwEffect == DROPEFFECT_NONE || pDataObj == nullptr)
        return S_OK;

    FORMATETC format = FileListFormat();
    STGMEDIUM medium = {};
    const HRESULT hr = pDataObj->GetData(&format, &medium);
    if (FAILED(hr) || medium.tymed != TYMED_HGLOBAL)
    {
        LOG4CXX_WARN(logger, L"The dropped file list cannot be read. hr = 0x" << std::hex << hr);
        if (SUCCEEDED(hr))
            ReleaseStgMedium(&medium);
        *pdwEffect = DROPEFFECT_NONE;
        return S_OK;
    }
    std::vector<std::wstring> names;
    if (const void* pBlock = GlobalLock(medium.hGlobal))
    {
        names = KvReadFileDrop(static_cast<const std::uint8_t*>(pBlock), GlobalSize(medium.hGlobal));
        GlobalUnlock(medium.hGlobal);
    }
    ReleaseStgMedium(&medium);
    if (m_pListener != nullptr)
        m_pListener->OnFilesDropped(names);
    return S_OK;
}
