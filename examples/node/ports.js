#!/usr/bin/env node
// Lists the ports of wexd, watches them, pulses an output, and is refused by an input: through
// dbus-next (`npm ci` in this folder installs it).
//
// Usage: ports.js OUTPUT INPUT    (numbers of ports)
'use strict';

const { once } = require('node:events');
const dbus = require('dbus-next');

const PULSE_MS = 200;
const word = (state) => (state ? 'on' : 'off');

async function list(ports) {
  const [, properties] = await ports.GetPortProps();
  for (const [name, number, state] of properties) {
    console.log(`${number} ${name}: ${word(state)}`);
  }
}

function watch(ports) {
  ports.on('PortChanged', (number, ...properties) => {
    const [state] = properties.slice(-2);
    console.log(`port ${number} is ${word(state)}`);
  });
}

// The steps run in the daemon; the call returns at once.
async function pulse(ports, output) {
  const done = once(ports, 'ActionSequenceDone');
  await ports.StartActionSequence(output, false, [[true, PULSE_MS], [false, 1]]);
  await done;
  console.log('the pulse is over');
}

async function drive(ports, port) {
  try {
    await ports.SetState(port, true);
  } catch (error) {
    console.log(`port ${port} refused: ${error.type}`);
  }
}

async function main(output, unwilling) {
  const bus = dbus.systemBus();
  const service = await bus.getProxyObject('com.norv.IOControl.State', '/com/norv/IOControl/State');
  const ports = service.getInterface('com.norv.IOControl.State');
  await list(ports);
  watch(ports);
  await pulse(ports, output);
  await drive(ports, unwilling);
  bus.disconnect();
}

main(...process.argv.slice(2).map(Number));
