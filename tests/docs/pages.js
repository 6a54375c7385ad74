'use strict';
// Pages of the documentation whose files do not do what the page shows.
//
// A fenced block that names a file after its language (```js hall.js) writes that file into a folder of the page's own.
// One in the language "console" has commands behind "$ ", each with the output that it has to give; the commands of a
// block share one shell. The times of log lines may differ, and a line "…" stands for any lines.
//
// Called as pages.js [--write] VNJS_PROGRAM PAGE...; --write puts the real outputs into the pages instead of failing.

const {spawnSync} = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

const kSeconds = 20;  // for each command
const kMark = '<<< end of a command >>>';

const args = process.argv.slice(2);
const write = args[0] === '--write' && args.shift();
const [program, ...pages] = args;
let faults = 0;

function fault(page, line, text) {
  faults++;
  console.log(`${page}:${line + 1}: ${text}`);
}

/// The blocks of a page with their info strings, and the number of their first line inside, counted from 0.
function blocksOf(page, lines) {
  const blocks = [];
  let open;
  lines.forEach((line, number) => {
    const [, blank, info] = line.match(/^(\s*)```+(.*)$/) || [];
    if (open && /^```+$/.test(line)) {
      blocks.push(open);
      open = undefined;
    } else if (open) {
      open.lines.push(line);
    } else if (info !== undefined) {
      open = {info, first: number + 1, lines: []};
      if (blank) fault(page, number, 'a block inside a list is not looked at');
    }
  });
  if (open) fault(page, open.first, 'the block does not end');
  return blocks;
}

/// Where each command of a block stands, and what is shown below it.
function commandsOf(block) {
  const commands = [];
  block.lines.forEach((line, i) => {
    if (line.startsWith('$ ')) commands.push({line: block.first + i, text: line.slice(2), shown: []});
    else if (commands.length > 0) commands[commands.length - 1].shown.push(line);
  });
  return commands;
}

/// What each of the commands prints; less when the shell ends before. `timeout` ends what they have started as well.
function outputsOf(commands, folder) {
  const script = commands.map(({text}) => `${text}\ns=$?; printf '\\n${kMark}\\n'; (exit $s)\n`).join('');
  const env = {...process.env, PATH: `${folder}/../bin:/usr/local/bin:/usr/bin:/bin`, LC_ALL: 'C.UTF-8'};
  const limit = ['-k', '5', String(kSeconds * commands.length)];
  const {stdout} = spawnSync('timeout', [...limit, 'sh', '-c', `exec 2>&1 </dev/null\n${script}`],
                             {cwd: folder, env, encoding: 'utf8', maxBuffer: 1 << 26});
  return (stdout || '').split(`\n${kMark}\n`);
}

/// Whether an output is what the page shows.
function matches(shown, output) {
  const pattern = shown.map((line) => line === '…' ? '(?:.*\n)*' : line.replace(/[\\^$.*+?()[\]{}|]/g, '\\$&') + '\n');
  const times = (text) => text.replace(/\b\d\d:\d\d:\d\d(\\?)\.\d{3}\b/g, 'HH:MM:SS.mmm');
  return new RegExp(`^${times(pattern.join(''))}$`).test(times(output.replace(/\n?$/, output && '\n')));
}

function check(page, base) {
  const folder = path.join(base, path.basename(page));
  fs.mkdirSync(folder);
  const lines = fs.readFileSync(page, 'utf8').split('\n');
  const changed = [...lines];
  let done = 0;
  for (const block of blocksOf(page, lines)) {
    const file = block.info.split(' ')[1];
    if (file) {
      if (block.lines.join('').trim() === '') fault(page, block.first, `nothing is in ${file}`);
      fs.mkdirSync(path.dirname(path.join(folder, file)), {recursive: true});
      fs.writeFileSync(path.join(folder, file), block.lines.join('\n') + '\n');
    }
    if (block.info !== 'console') continue;
    const commands = commandsOf(block);
    if (commands.length === 0) fault(page, block.first, 'no command is in this block');
    const outputs = outputsOf(commands, folder);
    commands.forEach(({line, text, shown}, i) => {
      done++;
      const output = i < outputs.length - 1 ? outputs[i] : `(not ended) ${outputs[outputs.length - 1]}`;
      if (matches(shown, output)) return;
      if (write) changed.fill(null, line + 1, line + 1 + shown.length)[line] = `$ ${text}\n${output}`.trimEnd();
      else fault(page, line, `${text}\n--- shown\n${shown.join('\n')}\n--- printed\n${output}\n---`);
    });
  }
  if (done === 0) fault(page, 0, 'no command is on this page');
  if (write) fs.writeFileSync(page, changed.filter((line) => line !== null).join('\n'));
}

const base = fs.mkdtempSync(path.join(os.tmpdir(), 'vnjs-pages-'));
process.on('exit', () => fs.rmSync(base, {recursive: true}));
fs.mkdirSync(path.join(base, 'bin'));
fs.symlinkSync(path.resolve(program), path.join(base, 'bin/vnjs'));
for (const page of pages) check(page, base);
if (pages.length === 0) fault('pages.js', 0, 'called without pages');
process.exitCode = faults > 0 ? 1 : 0;
