// What each environment of the soak program does by itself, and on demand. What it prints is for the host: "tick" is
// measured, "did …" is counted.
'use strict';

function expect(actual, expected) {
  if (String(actual) !== expected) throw new Error('got ' + actual + ' instead of ' + expected);
}
function refused(call) { try { call(); } catch (e) { return e.message; } }

setInterval(function () { debugPrint('tick'); }, 100);
setInterval(function () {
  clearTimeout(setTimeout(function () { throw new Error('fired although it was cleared'); }, 2000));
  setTimeout(function () { debugPrint('did timeout'); throw new Error('meant'); }, 50);
  setTimeout(function () {
    Promise.resolve().then(function () { debugPrint('did microtask'); });
    Promise.reject(new Error('meant'));
  }, 0);
  var rounds = 0;
  var inner = setInterval(function () {
    // Several may be queued already.
    if (++rounds !== 3) return;
    clearInterval(inner);
    debugPrint('did interval');
  }, 25);
}, 200);

function storage() {
  var state = {text: 'x'.repeat(1 + Math.random() * 5000), list: [1, {two: 2}, null], level: Math.random()};
  saveObject('state', state);
  expect(JSON.stringify(loadObject('state')), JSON.stringify(state));
  saveObject('state', null);
  expect(loadObject('state'), 'null');
  expect(loadObject('starts') > 0, 'true');
  expect(fs.loadText('automation.js').indexOf('function expect') > 0, 'true');
}
function command() {
  expect(system('echo', 'hall', 'two words'), '0,hall two words\n');
  expect(system('exit 3'), '768,');
  expect(refused(function () { system('rm everything'); }), 'This command is denied by policy');
}
function xml() {
  var doc = new VXmlDocument('<home/>');
  for (var i = 0; i < 200; ++i) doc.root.insertChild({name: 'lamp', attributes: {id: i}, text: 'hall & ' + i});
  doc.root.removeChild(0);
  var lamp = doc.root.children[4];
  lamp.text = 'cellar';
  lamp.attributes.dim = '<50%>';
  doc = new VXmlDocument(doc.toString());
  expect(doc.findOne('string(//lamp[.="cellar"]/@dim)'), '<50%>');
  expect(doc.findAll('//lamp[@id > 100]').length, '99');
  expect(refused(function () { new VXmlDocument('<a><b></a>'); }).indexOf('XML error at line 1'), '0');
}
function nested() {
  var called = 0;
  setTimeout(function () { ++called; }, 0);
  expect(executeJS('processPendingCallbacks(); executeJS("6 * 7")', 'nested.js'), '"42"');
  expect(called, '1');
  expect(refused(function () { executeJS('throw new Error("meant")'); }), 'Uncaught Error: meant');
}
function buffers() {
  var kept = [];
  expect(refused(function () { for (;;) kept.push(new Uint8Array(1 << 20)); }), 'Array buffer allocation failed');
}
saveObject('starts', loadObject('starts') + 1);
