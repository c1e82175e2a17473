// A stand-in for the filter-graph class, so that tests of what DirectShow's presence decides do
// not start the real filter-graph backend. Registered for the life of the object; the class that
// was registered before (if any) is put back afterwards.
#ifndef LORVEX_TESTS_SUPPORT_FAKE_FILTER_GRAPH_H
#define LORVEX_TESTS_SUPPORT_FAKE_FILTER_GRAPH_H

#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraphIds.h"

namespace lxtest {

class FakeFilterGraph {
  public:
    FakeFilterGraph() {
        lxp::CoInitialize(nullptr);
        void* previous = nullptr;
        if (lxp::SUCCEEDED(lxp::CoGetClassObject(lxp::CLSID_FilterGraph, lxp::CLSCTX_INPROC_SERVER, nullptr,
                                                 lxp::IID_IClassFactory, &previous))) {
            previous_ = static_cast<lxp::IClassFactory*>(previous);
        }
        lxp::CoUninitialize();
        Factory* f = new Factory();
        lxp::registerClass(lxp::CLSID_FilterGraph, f);
        f->Release();
    }
    ~FakeFilterGraph() {
        if (previous_ != nullptr) {
            lxp::registerClass(lxp::CLSID_FilterGraph, previous_);
            previous_->Release();
        } else {
            lxp::unregisterClass(lxp::CLSID_FilterGraph);
        }
    }

  private:
    class Graph : public lxp::ComObject<lxp::IUnknown> {
      public:
        lxp::HRESULT QueryInterface(const lxp::IID& iid, void** out) override {
            if (iid == lxp::IID_IGraphBuilder) {
                *out = this;
                AddRef();
                return lxp::S_OK;
            }
            return queryBase(iid, out);
        }
    };
    class Factory : public lxp::ComObject<lxp::IClassFactory> {
      public:
        lxp::HRESULT QueryInterface(const lxp::IID& iid, void** out) override {
            if (iid == lxp::IID_IClassFactory) {
                *out = static_cast<lxp::IClassFactory*>(this);
                AddRef();
                return lxp::S_OK;
            }
            return queryBase(iid, out);
        }
        lxp::HRESULT CreateInstance(lxp::IUnknown*, const lxp::IID& iid, void** out) override {
            Graph* g = new Graph();
            const lxp::HRESULT hr = g->QueryInterface(iid, out);
            g->Release();
            return hr;
        }
        lxp::HRESULT LockServer(bool) override { return lxp::S_OK; }
    };

    lxp::IClassFactory* previous_ = nullptr;
};

}  // namespace lxtest

#endif
