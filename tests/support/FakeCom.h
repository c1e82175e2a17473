// COM stand-ins for tests: a class factory for any test class and a filter-graph class registered
// in place of the real one. (A media sample is in FakeSample.h: the graph's types clash with the
// sound layer's, which some users of this header include.)
#ifndef LORVEX_TESTS_SUPPORT_FAKE_COM_H
#define LORVEX_TESTS_SUPPORT_FAKE_COM_H

#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraphIds.h"

namespace lxtest {

/// Makes a new T (a ComObject) for each CreateInstance.
template <class T>
class FactoryOf : public lxp::ComObject<lxp::IClassFactory> {
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
        T* object = new T();
        const lxp::HRESULT hr = object->QueryInterface(iid, out);
        object->Release();
        return hr;
    }
    lxp::HRESULT LockServer(bool) override { return lxp::S_OK; }
};

/// A filter-graph class that starts no backend, registered for the life of the object (the class
/// registered before, if any, is put back afterwards).
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
        auto* factory = new FactoryOf<Graph>();
        lxp::registerClass(lxp::CLSID_FilterGraph, factory);
        factory->Release();
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

    lxp::IClassFactory* previous_ = nullptr;
    FakeFilterGraph(const FakeFilterGraph&) = delete;
    FakeFilterGraph& operator=(const FakeFilterGraph&) = delete;
};

}  // namespace lxtest

#endif
