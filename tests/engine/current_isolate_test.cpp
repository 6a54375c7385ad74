// Environments in an isolate that is not theirs: who gets it, and what objects of one that has ended can still do in
// the next.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

/// With debugging on, environments take the thread's current isolate.
class CurrentIsolateTest : public ScriptTest {
 protected:
  CurrentIsolateTest() : m_allocator(v8::ArrayBuffer::Allocator::NewDefaultAllocator()) {
    v8::Isolate::CreateParams params;
    params.array_buffer_allocator = m_allocator.get();
    isolate = v8::Isolate::New(params);
    isolate->Enter();
    Automation::m_debug = true;
  }
  ~CurrentIsolateTest() override {
    Automation::m_debug = false;
    isolate->Exit();
    isolate->Dispose();
  }

  v8::Isolate* isolate;

 private:
  const std::unique_ptr<v8::ArrayBuffer::Allocator> m_allocator;
};

TEST_F(CurrentIsolateTest, ServesOneEnvironmentAtATime) {
  {
    Automation first(dir().c_str());
    Automation second(dir().c_str());
    EXPECT_EQ(first.GetEnvironment()->GetIsolate(), isolate);
    EXPECT_NE(second.GetEnvironment()->GetIsolate(), isolate);
    EXPECT_EQ(first.Run("var x = 1; setTimeout(function () { x = 2; }, 0); x", "").result(), "1");
    EXPECT_EQ(second.Run("typeof x", "").result(), "\"undefined\"");
    first.StartThread();
    EXPECT_TRUE(WaitUntil([&] { return first.Run("x", "").result() == "2"; }));
  }
  Automation third(dir().c_str());
  EXPECT_EQ(third.GetEnvironment()->GetIsolate(), isolate);
  EXPECT_EQ(third.Run("typeof x", "").result(), "\"undefined\"");
}

TEST_F(CurrentIsolateTest, ObjectsOfAnEndedEnvironmentAreHarmlessInTheNext) {
  v8::Global<v8::Value> old;
  {
    Automation first(dir().c_str());
    const Inside inside(first.GetEnvironment());
    old.Reset(isolate, inside.Eval(R"(
      var doc = new VXmlDocument('<r a="1"><s>t</s></r>'), node = doc.root, {attributes} = node;
      ({doc, node, attributes, dictionary: new NameValueDictionary({a: 1}), VXmlDocument, setTimeout}))"));
  }
  Automation next(dir().c_str());
  {
    const Inside inside(next.GetEnvironment());
    inside.context->Global()
        ->Set(inside.context, v8::String::NewFromUtf8Literal(isolate, "old"), old.Get(isolate))
        .FromMaybe(false);
  }
  EXPECT_EQ(next.Run(R"(
    const {doc, node, attributes} = old;
    node.text = 'x';
    attributes.a = 2;
    new VXmlDocument('<other/>');
    [doc.toString(), doc.root, doc.findOne('//r'), node.name, node.text, node.attributes, node.children, node.parent,
     node.insertChild({name: 'x'}), node.removeChild(0), node.findAll('.'), delete attributes.a, Object.keys(attributes),
     new old.VXmlDocument('<a/>').root].map(v => String(v)).filter(v => v != 'undefined').join())",
                     "")
                .result(),
            "\"false,a\"");
  EXPECT_EQ(next.Run("[old.dictionary.A, old.setTimeout(function () {}, 1) > 0]", "").result(), "[1,true]");
  const v8::Locker locker(isolate);
  old.Reset();
}

}  // namespace
}  // namespace vnjs::testing
