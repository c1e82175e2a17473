#include "platform/clock/LxpClock.h"
#include "platform/com/LxpCom.h"

#include "FakeCom.h"

#include <gtest/gtest.h>

namespace {

// The counter's rate is watched by the time base's timer tests, which run on this clock.
TEST(SystemClock, CalendarIsCurrent) {
    EXPECT_GT(lxp::systemClock().calendarSeconds(), 1700000000);  // after 2023
}

const lxp::CLSID kTestClass = {0x12345678, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};
const lxp::IID kTestIface = {0x12345679, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};

class Thing : public lxp::ComObject<lxp::IUnknown> {
  public:
    static inline int alive = 0;
    Thing() { ++alive; }
    ~Thing() override { --alive; }
    lxp::HRESULT QueryInterface(const lxp::IID& iid, void** out) override {
        return queryBase(iid == kTestIface ? lxp::IID_IUnknown : iid, out);
    }
};

// (Injected failures and the balance of initialisations: the mixer's and the version probe's tests.)
TEST(Com, CreationNeedsInitialisationAndARegisteredClass) {
    void* out = reinterpret_cast<void*>(1);
    const auto create = [&] {
        return lxp::CoCreateInstance(kTestClass, nullptr, lxp::CLSCTX_INPROC_SERVER, kTestIface, &out);
    };
    EXPECT_EQ(lxp::CO_E_NOTINITIALIZED, create());
    EXPECT_EQ(nullptr, out);
    ASSERT_EQ(lxp::S_OK, lxp::CoInitialize(nullptr));
    EXPECT_EQ(lxp::S_FALSE, lxp::CoInitialize(nullptr));
    EXPECT_EQ(lxp::REGDB_E_CLASSNOTREG, create());

    auto* factory = new lxtest::FactoryOf<Thing>();
    lxp::registerClass(kTestClass, factory);
    factory->Release();  // the registry holds it now
    ASSERT_EQ(lxp::S_OK, create());
    EXPECT_EQ(1, Thing::alive);
    static_cast<Thing*>(out)->Release();
    EXPECT_EQ(0, Thing::alive);

    EXPECT_EQ(lxp::S_OK, lxp::unregisterClass(kTestClass));
    EXPECT_EQ(lxp::S_FALSE, lxp::unregisterClass(kTestClass));
    lxp::CoUninitialize();
    lxp::CoUninitialize();
    EXPECT_EQ(0, lxp::comtest::threadInitCount());
    lxp::comtest::reset();
}

}  // namespace
