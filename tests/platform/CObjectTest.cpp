#include <gtest/gtest.h>

#include <memory>

#include "platform/CObject.h"

namespace {
class CAnimal : public CObject {
    DECLARE_DYNAMIC(CAnimal)
};
class CDog : public CAnimal {
    DECLARE_DYNCREATE(CDog)
public:
    int legs = 4;
};
}  // namespace

IMPLEMENT_DYNAMIC(CAnimal, CObject)
IMPLEMENT_DYNCREATE(CDog, CAnimal)

TEST(CObject, RuntimeClassChainAndCreation) {
    CDog dog;
    EXPECT_STREQ(dog.GetRuntimeClass()->m_lpszClassName, "CDog");
    EXPECT_TRUE(dog.IsKindOf(RUNTIME_CLASS(CAnimal)));
    EXPECT_TRUE(dog.IsKindOf(RUNTIME_CLASS(CObject)));
    EXPECT_EQ(CDog::_GetBaseClass(), RUNTIME_CLASS(CAnimal));

    CAnimal animal;
    EXPECT_FALSE(animal.IsKindOf(RUNTIME_CLASS(CDog)));
    EXPECT_EQ(RUNTIME_CLASS(CAnimal)->CreateObject(), nullptr);  // not dynamic-create

    std::unique_ptr<CObject> made(CRuntimeClass::CreateObject("CDog"));
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(made->IsKindOf(RUNTIME_CLASS(CDog)));
    EXPECT_EQ(static_cast<CDog*>(made.get())->legs, 4);
    EXPECT_EQ(CRuntimeClass::FromName("CNoSuchClass"), nullptr);
}
