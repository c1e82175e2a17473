// A media sample for tests of the filter library's renderers and outputs.
#ifndef LORVEX_TESTS_SUPPORT_FAKE_SAMPLE_H
#define LORVEX_TESTS_SUPPORT_FAKE_SAMPLE_H

#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraph.h"

#include <cstdint>
#include <vector>

namespace lxtest {

/// A media sample with its own bytes and times, not a discontinuity.
class FakeSample : public lxp::ComObject<lxp::IMediaSample> {
  public:
    FakeSample(std::vector<uint8_t> bytes, lxp::REFERENCE_TIME start, lxp::REFERENCE_TIME end)
        : bytes_(std::move(bytes)), start_(start), end_(end) {}
    lxp::HRESULT QueryInterface(const lxp::IID& iid, void** out) override { return queryBase(iid, out); }
    lxp::HRESULT GetPointer(uint8_t** p) override {
        *p = bytes_.data();
        return lxp::S_OK;
    }
    int32_t GetActualDataLength() override { return static_cast<int32_t>(bytes_.size()); }
    lxp::HRESULT GetTime(lxp::REFERENCE_TIME* s, lxp::REFERENCE_TIME* e) override {
        *s = start_;
        *e = end_;
        return lxp::S_OK;
    }
    lxp::HRESULT IsDiscontinuity() override { return lxp::S_FALSE; }

  private:
    std::vector<uint8_t> bytes_;
    lxp::REFERENCE_TIME start_;
    lxp::REFERENCE_TIME end_;
};

}  // namespace lxtest

#endif
