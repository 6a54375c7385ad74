// A watchdog: restarts a gateway that no longer answers, and leaves it time to come up again.
//
//     vnjs run examples/watchdog.js
//
// What may be run at all is not decided here: the file .syscommands beside this script lists it, and everything else is
// refused. Here `true` and `false` stand for `ping -c 1 gateway`, `echo restarted` stands for the restart, and a minute
// lasts 25 ms.
'use strict';

const MISSES = 3;         // pings without an answer, one each minute, until something is done
const GRACE_MINUTES = 4;  // for the gateway to come up again
const RESTARTS = 2;       // without success, before the whole controller is restarted

// 1 where the gateway answers, minute by minute.
const ANSWERS = '11101100001111000000000000000001';

let misses = 0;
let restarts = 0;
let waitUntil = 0;

function say(minute, ...words) {
  debugPrint('minute', minute + ':', ...words);
}

// The first value is the status of the shell: the exit code is in its upper byte. One that is not 0 is no exception,
// a command that the policy does not allow is.
function run(command, ...args) {
  const [status, output] = system(command, ...args);
  return {code: status >> 8, output: output.trim()};
}

function answers(minute) {
  return run(ANSWERS[minute] === '1' ? 'true' : 'false').code === 0;
}

function recover(minute) {
  misses = 0;
  waitUntil = minute + GRACE_MINUTES;
  if (++restarts <= RESTARTS) {
    say(minute, 'no answer,', run('echo restarted', 'the gateway').output);
    return;
  }
  try {
    run('reboot');
  } catch (error) {
    console.error('minute ' + minute + ': cannot reboot:', error.message);
  }
}

// Each minute sets the timeout of the next one. An interval would not do: while a command runs, its calls pile up.
function watch(minute) {
  if (answers(minute)) {
    if (restarts > 0) say(minute, 'it answers again');
    misses = restarts = 0;
  } else if (minute >= waitUntil && ++misses === MISSES) {
    recover(minute);
  }
  if (minute + 1 < ANSWERS.length) setTimeout(() => watch(minute + 1), 25);
}

watch(0);
