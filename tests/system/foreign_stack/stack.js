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
      // Enough for every header but that of an event without parameters.
      if (data.length < 5 && !(data.length >= 3 && data[0] === 4)) return;
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

const step = console.log;
// What a call tells its callback.
const told = (call) => new Promise((resolve) => call(resolve));
// What a call tells its callback behind an error or ATT status, which must be none.
const good = (call) =>
  new Promise((resolve, reject) => {
    call((error, value) => (error ? reject(new Error('error ' + error)) : resolve(value)));
  });

async function main() {
  const transport = new H4Transport(net.connect(process.argv[2]));
  const manager = await good((done) => BleManager.create(transport, {}, done));
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

  const connection = await told((done) => {
    manager.connect(report.addressType, report.address, {}, done);
  });
  step('connected');

  await good((done) => connection.gatt.exchangeMtu(done));
  const services = await told((done) => {
    connection.gatt.discoverServicesByUuid(SERVICE, 1, done);
  });
  assert.strictEqual(services.length, 1);
  const characteristics = await told((done) => services[0].discoverCharacteristics(done));
  const characteristic = characteristics.find((c) => c.uuid.toUpperCase() === CHARACTERISTIC);
  assert(characteristic, 'no ' + CHARACTERISTIC);

  assert.strictEqual((await good((done) => characteristic.read(done))).toString(), 'hello');
  step('read');

  for (const value of ['written by a foreign stack', 'x'.repeat(200)]) {
    await good((done) => characteristic.write(value, done));
    assert.strictEqual((await good((done) => characteristic.read(done))).toString(), value);
  }
  step('written');

  const notified = told((done) => characteristic.on('change', done));
  await good((done) => characteristic.writeCCCD(true, false, done));
  const value = await notified;
  step('notified of ' + value.length + ' bytes');

  const gone = told((done) => connection.on('disconnect', done));
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
