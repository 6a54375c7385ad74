'use strict';
// types/vnjs.d.ts: globals and members that scripts have but nobody declared or described, declared ones that are
// missing, of another kind or refuse their arguments; declarations that let mistakes pass, and examples that do not fit them.
// types/runner.d.ts, and declared.d.ts, which is what a host's functions are declared as: the same mistakes.
//
// Called as types_test.js VNJS_PROGRAM SOURCE_FOLDER.

const {spawnSync} = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

let ts;
try {
  ts = require('typescript');
} catch (error) {
  console.log(`skipped: ${error.message}`);
  process.exit(77);
}

const [vnjsProgram, root] = process.argv.slice(2);
const kDeclarations = path.join(root, 'types/vnjs.d.ts');

// Globals that scripts are not meant to use.
const kInternals = [
  '$fs$list', '$fs$stat', '$fs$loadJSON', '$fs$load', '$fs$loadText', 'VFileSystem', '$xml$toString', '$xml$findOne',
  '$xml$findAll', '$xml$getRoot', '$xml$setRoot',
];

// A good argument for every parameter of that name, as script text.
const kSamples = {
  callback: '() => 0', milliseconds: '60000', id: '1', code: '"1"', name: '"probe"', path: '"probe.json"', value: '[1]',
  initial: '({a: 1})', command: '"echo"', text: '\'<a b="1"><c/><d/></a>\'', xpath: '"//p:c"', prefixes: '({p: "urn:p"})',
  element: '({name: "e"})', position: '0', index: '0', args: '"more"', values: '"more"',
};

const failures = [];

const {config} = ts.readConfigFile(path.join(root, 'examples/jsconfig.json'), ts.sys.readFile);
const {options, fileNames} = ts.parseJsonConfigFileContent(config, ts.sys, path.join(root, 'examples'));
const program = ts.createProgram([...fileNames, path.join(__dirname, 'mistakes.js')], options);
// With the globals of a browser, which an editor takes when nobody tells it otherwise, they do not clash either.
const inBrowser = ts.createProgram([kDeclarations], {lib: ['lib.es2022.d.ts', 'lib.dom.d.ts'], types: []});
const controller = path.join(root, 'examples/controller_host');
const inRunner = ts.createProgram([
  kDeclarations, path.join(root, 'types/runner.d.ts'), path.join(__dirname, 'declared.d.ts'),
  path.join(__dirname, 'declared.js'),
  ...fs.readdirSync(controller).filter((name) => name.endsWith('.js')).map((name) => path.join(controller, name)),
], options);
const errors = [program, inBrowser, inRunner].flatMap((one) => [...ts.getPreEmitDiagnostics(one)]);
if (errors.length > 0) failures.push(ts.formatDiagnostics(errors, ts.createCompilerHost(options)));

const checker = program.getTypeChecker();
const declarations = program.getSourceFile(kDeclarations);
const isOurs = (symbol) => (symbol?.declarations || []).some((one) => one.getSourceFile() === declarations);

function kindOf(type) {
  if (type.getConstructSignatures().length > 0) return 'constructor';
  if (type.getCallSignatures().length > 0) return 'function';
  const {Any, Unknown, Object: Objects, Union} = ts.TypeFlags;
  const kind = ['String', 'Number', 'Boolean'].find((name) => type.flags & ts.TypeFlags[`${name}Like`]);
  return kind ? kind.toLowerCase() : type.flags & (Any | Unknown) ? 'any' : type.flags & (Objects | Union) && 'object';
}

// One entry for each global and member, with what `observe` needs to look at it.
const entries = [];
const seen = new Set();

function describe(name, self, declaredType, expression) {
  let type = checker.getNonNullableType(declaredType);
  const entry = {name, self, expression, kind: kindOf(type), optional: type !== declaredType};
  entries.push(entry);
  const [signature] = [...type.getConstructSignatures(), ...type.getCallSignatures()];
  if (signature) {
    const parameters = signature.parameters.map((parameter) => parameter.valueDeclaration);
    entry.required = parameters.filter(({questionToken, dotDotDotToken}) => !questionToken && !dotDotDotToken).length;
    entry.samples = parameters.map((parameter) => kSamples[parameter.name.text]);
    if (entry.samples.includes(undefined)) failures.push(`${expression}: no sample for one of its parameters`);
    if (entry.kind !== 'constructor') return;
    type = signature.getReturnType();
    expression = `(new ${expression}(${entry.samples}))`;
  }
  if (!isOurs(type.symbol) || seen.has(type)) return;
  seen.add(type);
  const members = type.getProperties();
  // The engine's console has more, and what is looked up by any name has any members.
  if (name !== 'console' && !checker.getIndexInfoOfType(type, ts.IndexKind.String))
    entries.push({expression, kind: 'object', members: members.map((member) => member.name)});
  for (const member of members)
    describe(member.name, expression, checker.getTypeOfSymbol(member), `${expression}.${member.name}`);
}

const globals = checker.getSymbolsInScope(declarations, ts.SymbolFlags.Value);
for (const symbol of globals.filter(isOurs))
  describe(symbol.name, 'globalThis', checker.getTypeOfSymbolAtLocation(symbol, declarations), symbol.name);
entries.sort((a, b) => (a.name === 'exit') - (b.name === 'exit'));

// Runs in the environment.
function observe(entries) {
  const value = (text) => (0, eval)(text);
  const things = entries.map(({name, self, expression, kind, required, samples}) => {
    const it = value(expression);
    const result = {kind: kind === 'constructor' && it?.prototype ? kind : it === null ? 'undefined' : typeof it};
    if (result.kind === 'object') {
      result.members = [];
      for (let at = it; at !== Object.prototype && at !== null; at = Object.getPrototypeOf(at))
        result.members.push(...Object.getOwnPropertyNames(at).filter((member) => member !== 'constructor'));
    }
    const call = (values) => kind === 'constructor' ? new (value(self)[name])(...values) : value(self)[name](...values);
    try {
      for (const count of samples ? [required, samples.length] : []) call(samples.slice(0, count).map(value));
    } catch (error) {
      result.thrown = error.message;
    }
    return result;
  });
  return {things, names: Object.getOwnPropertyNames(globalThis)};
}

const storage = fs.mkdtempSync(path.join(os.tmpdir(), 'vnjs-types-'));
fs.writeFileSync(path.join(storage, 'probe.json'), '1');
fs.writeFileSync(path.join(storage, '.syscommands'), 'echo\n');
const code = `(${observe})(${JSON.stringify(entries)})`;
const {status, stdout, stderr} = spawnSync(vnjsProgram, ['eval', '--storage', storage, code], {encoding: 'utf8'});
fs.rmSync(storage, {recursive: true});
if (status !== 0) throw new Error(stderr);
const {names, things} = JSON.parse(stdout);

const known = new Set([...kInternals, ...globals.map((symbol) => symbol.name)]);
for (const name of names.filter((name) => !known.has(name))) failures.push(`${name}: not declared`);
const reference = fs.readFileSync(path.join(root, 'docs/scripts.md'), 'utf8');
for (const {name} of globals.filter(isOurs))
  if (!reference.includes(`\`${name}`)) failures.push(`${name}: not in docs/scripts.md`);
entries.forEach(({expression, kind, optional, members}, index) => {
  const there = things[index];
  const say = (what) => failures.push(`${expression}: ${what}`);
  if (kind !== 'any' && there.kind !== kind && !(optional && there.kind === 'undefined'))
    return say(`declared as ${kind}, is ${there.kind}`);
  for (const name of members || []) if (!there.members.includes(name)) say(`${name} is not there`);
  for (const name of members ? there.members : []) if (!members.includes(name)) say(`${name} is not declared`);
  if (there.thrown) say(`does not do with the arguments declared: ${there.thrown}`);
});

for (const failure of failures) console.log(failure);
console.log(`${entries.length} entries, ${fileNames.length} files, ${failures.length} failures`);
process.exit(failures.length > 0 ? 1 : 0);
