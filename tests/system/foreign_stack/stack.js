// Runs a host stack that nobody here wrote on the H4 port of bthalctl serve-h4, against the ATT peer
// of the simulated handset.
// usage: node stack.js UNIX-SOCKET     prints a line a step; exit code 0 when all went well
'use strict';

const assert = require('assert');
const { EventEmitter } = require('events');
const net = require('net');
const { BleManager } = require('ble-host');

const SERVICE = '5A564B00-51D0-4A56-8E00-000000000001';
const CHARACTERISTIC = '5A564B00-51D0-4A56-8E00-000000000002';

// The stack wants one whole packet an event; a socket gives chunks.
class H4Transport extends EventEmitter {
  constructor(socket) {
    super();
    this.socket = socket;
    this.partial = Buffer.alloc(0);
    socket.on('data', (chunk) => this.push(chunk));
    socket.on('close', () => this.emit('close'));
  }
  write(packet) {
    this.socket.write(packet);
  }
  push(chunk) {
    this.partial = Buffer.concat([this.partial, chunk]);
    for (;;) {
      const data = this.partial;
      if (data.length < 5) {
        // Enough for every header but that of an event without parameters.
        if (!(data.length >= 3 && data[0] === 4)) return;
      }
      let size;
      if (data[0] === 4) size = 3 + data[2];
      else if (data[0] === 2) size = 5 + data.readUInt16LE(3);
      else if (data[0] === 5) size = 5 + (data.readUInt16LE(3) & 0x3fff);
      else if (data[0] === 3) size = 4 + data[3];
      else throw new Error('not a packet type: ' + data[0]);
      if (data.length < size) return;
      this.partial = data.subarray(size);
      this.emit('data', data.subarray(0, size));
    }
  }
}

function step(text) {
  console.log(text);
}

function connectSocket(path) {
  return new Promise((resolve, reject) => {
    const socket = net.connect(path, () => resolve(socket));
    socket.on('error', reject);
  });
}

const createManager = (transport) =>
  new Promise((resolve, reject) => {
    BleManager.create(transport, {}, (error, manager) => (error ? reject(error) : resolve(manager)));
  });

// Calls back with an ATT status first.
const att = (call) =>
  new Promise((resolve, reject) => {
    call((status, value) => (status === 0 ? resolve(value) : reject(new Error('ATT status ' + status))));
  });

async function main() {
  const socket = await connectSocket(process.argv[2]);
  const manager = await createManager(new H4Transport(socket));
  step('reset');

  const report = await new Promise((resolve) => {
    const scanner = manager.startScan({});
    scanner.on('report', (event) => {
      if (event.connectable && event.parsedDataItems.localName === 'ZVK GATT') {
        scanner.stopScan();
        resolve(event);
      }
    });
  });
  step('heard ' + report.address);

  const connection = await new Promise((resolve) => {
    manager.connect(report.addressType, report.address, {}, resolve);
  });
  step('connected');

  await att((done) => connection.gatt.exchangeMtu(done));
  const services = await new Promise((resolve) => {
    connection.gatt.discoverServicesByUuid(SERVICE, 1, resolve);
  });
  assert.strictEqual(services.length, 1);
  const characteristics = await new Promise((resolve) => {
    services[0].discoverCharacteristics(resolve);
  });
  const characteristic = characteristics.find((c) => c.uuid.toUpperCase() === CHARACTERISTIC);
  assert(characteristic, 'no ' + CHARACTERISTIC);

  assert.strictEqual((await att((done) => characteristic.read(done))).toString(), 'hello');
  step('read');

  for (const value of ['written by a foreign stack', 'x'.repeat(200)]) {
    await att((done) => characteristic.write(value, done));
    assert.strictEqual((await att((done) => characteristic.read(done))).toString(), value);
  }
  step('written');

  const notified = new Promise((resolve) => characteristic.on('change', resolve));
  await att((done) => characteristic.writeCCCD(true, false, done));
  const value = await notified;
  step('notified of ' + value.length + ' bytes');

  const gone = new Promise((resolve) => connection.on('disconnect', resolve));
  connection.disconnect();
  await gone;
  step('disconnected');
  process.exit(0);
}

process.on('unhandledRejection', (error) => {
  console.error(error);
  process.exit(1);
});
main();
