// Media-type helpers and the name conversions of the filter-graph layer.
#include "platform/dshow/LxpGraph.h"

#include <cstring>
#include <string>

namespace lxp {

void FreeMediaType(AM_MEDIA_TYPE& type) {
    if (type.pbFormat != nullptr) {
        CoTaskMemFree(type.pbFormat);
    }
    if (type.pUnk != nullptr) {
        type.pUnk->Release();
    }
    type.pbFormat = nullptr;
    type.cbFormat = 0;
    type.pUnk = nullptr;
    type.formattype = GUID_NULL;
}

HRESULT CopyMediaType(AM_MEDIA_TYPE* target, const AM_MEDIA_TYPE* source) {
    if (target == nullptr || source == nullptr) {
        return E_POINTER;
    }
    *target = *source;
    target->pbFormat = nullptr;
    if (source->cbFormat != 0 && source->pbFormat != nullptr) {
        target->pbFormat = static_cast<uint8_t*>(CoTaskMemAlloc(source->cbFormat));
        if (target->pbFormat == nullptr) {
            target->cbFormat = 0;
            target->pUnk = nullptr;
            return E_OUTOFMEMORY;
        }
        std::memcpy(target->pbFormat, source->pbFormat, source->cbFormat);
    } else {
        target->cbFormat = 0;
    }
    if (target->pUnk != nullptr) {
        target->pUnk->AddRef();
    }
    return S_OK;
}

AM_MEDIA_TYPE makeMajorType(const GUID& major) {
    AM_MEDIA_TYPE type;
    std::memset(&type, 0, sizeof type);
    type.majortype = major;
    return type;
}

HRESULT answerConnectedTo(IPin* peer, IPin** out) {
    *out = peer;
    if (peer == nullptr) {
        return VFW_E_NOT_CONNECTED;
    }
    peer->AddRef();
    return S_OK;
}

HRESULT answerNotConnected(AM_MEDIA_TYPE* type) {
    *type = makeMajorType(GUID_NULL);
    return VFW_E_NOT_CONNECTED;
}

HRESULT answerConnectedTo(std::mutex& lock, IPin* const& peer, IPin** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(lock);
    return answerConnectedTo(peer, out);
}

HRESULT answerPinInfo(IBaseFilter* owner, PIN_DIRECTION direction, const WCHAR* name, PIN_INFO* info) {
    if (info == nullptr) {
        return E_POINTER;
    }
    info->pFilter = owner;
    owner->AddRef();
    info->dir = direction;
    copyName(info->achName, 128, name);
    return S_OK;
}

HRESULT answerDirection(PIN_DIRECTION direction, PIN_DIRECTION* out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    *out = direction;
    return S_OK;
}

HRESULT answerFilterInfo(std::mutex& lock, const std::wstring& name, IFilterGraph* const& graph,
                         FILTER_INFO* info) {
    if (info == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(lock);
    copyName(info->achName, 128, name.c_str());
    info->pGraph = graph;
    if (graph != nullptr) {
        graph->AddRef();
    }
    return S_OK;
}

void copyName(WCHAR* target, size_t capacity, const WCHAR* source) {
    if (target == nullptr || capacity == 0) {
        return;
    }
    size_t i = 0;
    if (source != nullptr) {
        for (; i + 1 < capacity && source[i] != 0; ++i) {
            target[i] = source[i];
        }
    }
    target[i] = 0;
}

namespace {

// Decodes UTF-8; each byte of a malformed sequence becomes U+DC80 + byte.
std::wstring decode(const char* src, size_t length) {
    std::wstring out;
    out.reserve(length);
    const unsigned char* s = reinterpret_cast<const unsigned char*>(src);
    size_t i = 0;
    while (i < length) {
        const unsigned char c = s[i];
        int extra = -1;
        uint32_t cp = 0;
        if (c < 0x80) {
            extra = 0;
            cp = c;
        } else if ((c & 0xE0) == 0xC0 && c >= 0xC2) {
            extra = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0 && c <= 0xF4) {
            extra = 3;
            cp = c & 0x07;
        }
        bool ok = extra >= 0 && i + static_cast<size_t>(extra) < length;
        for (int k = 1; ok && k <= extra; ++k) {
            const unsigned char cc = s[i + k];
            if ((cc & 0xC0) != 0x80) {
                ok = false;
            } else {
                cp = (cp << 6) | (cc & 0x3F);
            }
        }
        // Overlong forms, surrogates and values beyond Unicode are not UTF-8.
        if (ok && ((extra == 2 && cp < 0x800) || (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
                   (cp >= 0xD800 && cp <= 0xDFFF))) {
            ok = false;
        }
        if (ok) {
            out.push_back(static_cast<wchar_t>(cp));
            i += static_cast<size_t>(extra) + 1;
        } else {
            out.push_back(static_cast<wchar_t>(0xDC00 + c));
            ++i;
        }
    }
    return out;
}

bool encode(const wchar_t* src, size_t length, std::string* out) {
    bool usedDefault = false;
    for (size_t i = 0; i < length; ++i) {
        const uint32_t cp = static_cast<uint32_t>(src[i]);
        if (cp >= 0xDC80 && cp <= 0xDCFF) {
            out->push_back(static_cast<char>(cp - 0xDC00));
        } else if (cp < 0x80) {
            out->push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000 && (cp < 0xD800 || cp > 0xDFFF)) {
            out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp >= 0x10000 && cp <= 0x10FFFF) {
            out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out->push_back('?');
            usedDefault = true;
        }
    }
    return usedDefault;
}

bool knownCodePage(uint32_t codePage) {
    return codePage == CP_ACP || codePage == CP_UTF8;
}

}  // namespace

int32_t MultiByteToWideChar(uint32_t codePage, uint32_t, const char* src, int32_t srcLength, WCHAR* dst,
                            int32_t dstLength) {
    if (!knownCodePage(codePage) || src == nullptr || srcLength == 0 || srcLength < -1 || dstLength < 0) {
        return 0;
    }
    const size_t length = srcLength == -1 ? std::strlen(src) + 1 : static_cast<size_t>(srcLength);
    const std::wstring wide = decode(src, length);
    const int32_t needed = static_cast<int32_t>(wide.size());
    if (dstLength == 0) {
        return needed;
    }
    if (dst == nullptr || needed > dstLength) {
        return 0;
    }
    std::memcpy(dst, wide.data(), wide.size() * sizeof(WCHAR));
    return needed;
}

int32_t WideCharToMultiByte(uint32_t codePage, uint32_t, const WCHAR* src, int32_t srcLength, char* dst,
                            int32_t dstLength, const char*, int32_t* usedDefault) {
    if (!knownCodePage(codePage) || src == nullptr || srcLength == 0 || srcLength < -1 || dstLength < 0) {
        return 0;
    }
    size_t length = 0;
    if (srcLength == -1) {
        while (src[length] != 0) {
            ++length;
        }
        ++length;  // the terminator
    } else {
        length = static_cast<size_t>(srcLength);
    }
    std::string narrow;
    const bool replaced = encode(src, length, &narrow);
    if (usedDefault != nullptr) {
        *usedDefault = replaced ? 1 : 0;
    }
    const int32_t needed = static_cast<int32_t>(narrow.size());
    if (dstLength == 0) {
        return needed;
    }
    if (dst == nullptr || needed > dstLength) {
        return 0;
    }
    std::memcpy(dst, narrow.data(), narrow.size());
    return needed;
}

}  // namespace lxp
