// Which commands a policy allows, what is made of the arguments, and what comes back of the output.

// Whether a line of the policy is what the command begins with. Texts end at their first zero.
function allows(policy, command) {
  return (policy.match(/[^\n]*\n|[^\n]+$/g) || []).some((whole) => {
    const line = whole.replace(/[\r\n \t]+$/, '');
    return whole[0] !== '#' && (line.includes('\0') ? line.split('\0', 1)[0] === command : command.startsWith(line));
  });
}

// An argument with a blank is quoted; a quote in it takes the place of as many characters as are before it, and one.
function quoted(text) {
  let made = '';
  for (let i = 0, size; i < text.length; i += size) {
    size = text[i] === '"' ? made.length + 1 : 1;
    made += text[i] === '"' ? '\\"' : text[i];
  }
  return text.includes(' ') ? `"${made}"` : text;
}

// What is given to system(), and its text.
function argument() {
  const given = text();
  const forms = {255: [{toString() { throw 1; }}, ''], 254: [undefined, ''], 253: [{toString: () => given}, given]};
  return forms[next()] || [given, given];
}

function call(policy) {
  // The command of the input, or a part of the policy with the input behind it.
  const start = next();
  const command = (start < policy.length ? policy.substr(start, next()) : '') + text(), parts = some(5, argument);
  // More than is read at once, and less than the pipe holds.
  const output = chunk().repeat(next() % 200 + 1);
  prepare(policy, output);
  const seen = outcome(() => system(command, ...parts.map(([given]) => given)));
  const line = [utf8(command), ...parts.map(([, text]) => quoted(utf8(text)))].join(' ');
  const refusal = utf8(command) === '' ? 'Invalid arguments' :
    allows(policy, utf8(command)) ? undefined : 'This command is denied by policy';
  is(started(), refusal ? '' : line + '\n', 'what starts');
  if (refusal) is(seen, ['threw', refusal], 'the refusal');
  else if (/^[\0-\x7f]*$/.test(output)) is(seen, ['gave', [0, utf8(output)]], 'the answer');
}

function fuzz() {
  const policy = chunk();
  for (let calls = 0; more() && calls < 20; ++calls) call(policy);
}
