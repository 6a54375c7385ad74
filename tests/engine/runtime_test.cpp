// Runtime primitives: reference counts, named threads that end at once, fail, or outlive their creators'
// pointers.
#include <atomic>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

struct Counted : VRefCountedObject {
  explicit Counted(int* alive) : alive(alive) { ++*alive; }
  ~Counted() override { --*alive; }
  int* const alive;
};

TEST(RefCountTest, TheLastPointerDeletes) {
  int alive = 0;
  VRefCountedPointer<Counted> first(new Counted(&alive));
  const VRefCountedPointer<Counted>& alias = first;
  first = alias;
  first = first.get_ptr();
  EXPECT_EQ(alive, 1);
  VRefCountedPointer<Counted> second(first);
  first = VRefCountedPointer<Counted>();
  EXPECT_TRUE(first.is_empty());
  EXPECT_EQ(alive, 1);
  second = nullptr;
  EXPECT_EQ(alive, 0);
  VRefCounter counter(-1);
  EXPECT_EQ(++counter, 0);
  EXPECT_EQ(--counter, -1);
}

class ThreadTest : public ScriptTest {
 protected:
  using Pointer = VRefCountedPointer<Thread>;
  static int ReturnAtOnce(Pointer) { return 3; }
  static int Throw(Pointer) { throw VornException("thrown"); }
  static int PollUntilTold(Pointer self) {
    ++*static_cast<std::atomic<int>*>(self->GetData());
    while (!self->IsTerminating()) usleep(500);
    --*static_cast<std::atomic<int>*>(self->GetData());
    return 0;
  }
  std::atomic<int> m_running{0};
};

std::string ThreadFailure(Environment* env, const char* name, Thread::Function function) {
  try {
    const VRefCountedPointer<Thread> thread(new Thread(env, name, function, nullptr));
  } catch (const VornException& e) {
    return e.msg();
  }
  return "none";
}

TEST_F(ThreadTest, RefusesBadArguments) {
  EXPECT_EQ(ThreadFailure(nullptr, "t", ReturnAtOnce), "Invalid args!");
  EXPECT_EQ(ThreadFailure(environment(), "", ReturnAtOnce), "Invalid args!");
  EXPECT_EQ(ThreadFailure(environment(), "t", nullptr), "Invalid args!");
}

TEST_F(ThreadTest, ShortFunctionsDoNotOvertakeTheirCreator) {
  for (int i = 0; i < 200; ++i) {
    Pointer kept(new Thread(environment(), "kept", i % 2 ? ReturnAtOnce : Throw, nullptr));
    kept->Join();
    kept->Join();
    // Nobody joins these; they delete themselves.
    { const Pointer dropped(new Thread(environment(), "dropped", ReturnAtOnce, nullptr)); }
    Pointer detached(new Thread(environment(), "detached", Throw, nullptr));
    detached->Detach();
    detached->Join();
  }
}

TEST_F(ThreadTest, TheEnvironmentKeepsThreadsByNameUntilTheyAreJoined) {
  const Pointer thread = environment()->CreateThread("poller", PollUntilTold, &m_running);
  EXPECT_EQ(environment()->CreateThread("poller", ReturnAtOnce, nullptr).get_ptr(), thread.get_ptr());
  EXPECT_EQ(environment()->GetThread("poller").get_ptr(), thread.get_ptr());
  EXPECT_TRUE(WaitUntil([&] { return m_running == 1; }));
  thread->SetTerminating();
  thread->Join();
  EXPECT_EQ(m_running, 0);
  EXPECT_TRUE(environment()->GetThread("poller").is_empty());
}

TEST_F(ThreadTest, TheEndOfTheEnvironmentEndsItsThreads) {
  const Pointer kept = environment()->CreateThread("kept", PollUntilTold, &m_running);
  environment()->CreateThread("other", PollUntilTold, &m_running);
  EXPECT_TRUE(WaitUntil([&] { return m_running == 2; }));
  automation.reset();
  EXPECT_EQ(m_running, 0);
  kept->Join();
}

TEST_F(ThreadTest, ATerminatingEnvironmentRefusesThreadsAndVariables) {
  Run("exit()");
  EXPECT_TRUE(environment()->CreateThread("t", ReturnAtOnce, nullptr).is_empty());
  EXPECT_TRUE(environment()->GetThread("t").is_empty());
  environment()->SetVariable("v", new EnvironmentVariable());
  EXPECT_TRUE(environment()->GetVariable("v").is_empty());
}

TEST(HandleFunctionsTest, NothingToDoForNullAndZero) {
  VJoinThread(nullptr);
  VDetachThread(nullptr);
  unsigned long handle = 0;
  VJoinThread(&handle);
  VDetachThread(&handle);
  VCreateThread([](void*) -> void* { return nullptr; }, nullptr, &handle);
  EXPECT_NE(handle, 0u);
  VJoinThread(&handle);
  EXPECT_EQ(handle, 0u);
}

}  // namespace
}  // namespace vnjs::testing
