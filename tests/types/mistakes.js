// What an editor has to complain about: where it does not, the comment above the line is an error.
'use strict';

// @ts-expect-error
setTimeuot(() => debugPrint('later'), 100);
// @ts-expect-error
setTimeout(() => debugPrint('later'));
// @ts-expect-error
fs.save('/counters.json', '{}');
// @ts-expect-error
debugPrint(fs.stat('/counters.json').type);
// @ts-expect-error
if (system('uptime') === 0) debugPrint('fine');
// @ts-expect-error
new VXmlDocument('<a/>').findOne('//a')?.insertChild('b');
// @ts-expect-error: the engine is older
debugPrint([3, 1, 2].toSorted());
// @ts-expect-error: there is no page
document.write('hello');
