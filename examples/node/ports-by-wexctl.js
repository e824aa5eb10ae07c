#!/usr/bin/env node
// Lists the ports of wexd, watches them, pulses an output, and is refused by an input: through wexctl,
// whose JSON is the same on every device, so that no D-Bus package is needed.
//
// Usage: ports-by-wexctl.js OUTPUT INPUT    (numbers or names of ports)
'use strict';

const { execFile, spawn } = require('node:child_process');
const { createInterface } = require('node:readline');
const { promisify } = require('node:util');

const run = promisify(execFile);
const wexctl = async (...words) => (await run('wexctl', words)).stdout;
const word = (state) => (state ? 'on' : 'off');

async function list() {
  for (const port of JSON.parse(await wexctl('list', '--json'))) {
    console.log(`${port.number} ${port.name}: ${word(port.state)}`);
  }
}

// Calls back with each event, the first of which says that all that follow will be told.
function watch(onEvent) {
  const monitor = spawn('wexctl', ['monitor', '--json'], { stdio: ['ignore', 'pipe', 'inherit'] });
  createInterface({ input: monitor.stdout }).on('line', (line) => onEvent(JSON.parse(line)));
  return monitor;
}

async function drive(port) {
  try {
    await wexctl('set', port, 'on');
  } catch (error) {
    const name = /\((\S+)\)\s*$/.exec(error.stderr);
    console.log(`port ${port} refused: ${name ? name[1] : error.stderr}`);
  }
}

async function main([output, unwilling]) {
  await list();
  const monitor = watch(async (event) => {
    if (event.event === 'watching') {
      await wexctl('pulse', output, '200ms');
    } else if (event.event === 'port-changed') {
      console.log(`port ${event.port} is ${word(event.state)}`);
    } else if (event.event === 'sequence-done') {
      console.log('the pulse is over');
      monitor.kill();
      await drive(unwilling);
    }
  });
}

main(process.argv.slice(2));
