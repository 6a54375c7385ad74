// Hosts and extensions that were built against older headers call virtual operations by their place in the table. A
// new operation comes last; anything else here takes a new major version. The exported names have a list of their own,
// tests/install/exported.txt.
#include <gtest/gtest.h>
#include <vnjs/vnjs.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vnjs::testing {
namespace {

/// A pointer to a virtual member function is the offset of its entry, with a mark: in the lowest bit of the offset, and
/// on ARM, where functions may be at odd addresses, in that of the word after it.
template <typename Member>
size_t PlaceOf(Member member) {
  uintptr_t words[2];
  static_assert(sizeof member == sizeof words);
  memcpy(words, &member, sizeof words);
  EXPECT_EQ((words[0] | words[1]) & 1, 1U) << "not virtual";
  return words[0] / sizeof(void*);
}

/// Whether they follow each other in the table.
template <typename... Members>
void ExpectPlacesFrom(size_t place, Members... members) {
  for (const size_t seen : {PlaceOf(members)...}) EXPECT_EQ(seen, place++);
}

TEST(AbiTest, VirtualOperationsKeepTheirPlaces) {
  // The destructor takes two.
  ExpectPlacesFrom(2, &Environment::Run, &Environment::RunFile, &Environment::StartThread,
                   &Environment::StopThread, &Environment::IsThreaded, &Environment::IsTerminating,
                   &Environment::PushCallback, &Environment::ProcessPendingCallbacks,
                   &Environment::StorageDir, &Environment::GetLogger, &Environment::SetLogger,
                   &Environment::Log, &Environment::GetIsolate, &Environment::GetContext,
                   &Environment::GetGlobal, &Environment::GetVariable, &Environment::SetVariable,
                   &Environment::CreateThread, &Environment::GetThread);
  ExpectPlacesFrom(2, &VRefCountedObject::Release, &EnvironmentVariable::HasPendingWork,
                   &EnvironmentVariable::OnEnvironmentEnd, &EnvironmentVariable::PendingWork);
  ExpectPlacesFrom(3, &CallbackBase::Call);
  ExpectPlacesFrom(3, &Module::GetNativeFunction, &Module::GetFunction);
  ExpectPlacesFrom(2, &VornException::raise, &VornException::msg);
}

}  // namespace
}  // namespace vnjs::testing
