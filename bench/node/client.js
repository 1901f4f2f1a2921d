// The official Node Socket.IO client reading the same stream as the C++ readers of
// bench/Realtime.cpp, with the same protocol towards that driver: one line "ready" once it is
// subscribed (when --chat is given), then one line "EVENTS CPU_SECONDS WALL_SECONDS PEAK_RSS_KB SYSTEM_SECONDS".
//
//   node client.js --url URL --count N [--token USER_TOKEN --chat CHAT_ID]
'use strict';

const {io} = require('socket.io-client');

function option(name) {
    const index = process.argv.indexOf(`--${name}`);
    return index > 0 ? process.argv[index + 1] : undefined;
}

const url = option('url');
const count = Number(option('count'));
const token = option('token');
const chatId = option('chat');

let events = 0;
let textBytes = 0;
// The peak of this process's own memory: maxRSS would include what the spawning driver had.
function peakResidentKiB() {
    const status = require('fs').readFileSync('/proc/self/status', 'utf8');
    return Number(/VmHWM:\s*(\d+)/.exec(status)[1]);
}

let cpuStart = process.cpuUsage();
let wallStart = process.hrtime.bigint();

const socket = io(url, {transports: ['websocket'], reconnection: false, path: '/socket.io/'});

function startClock() {
    cpuStart = process.cpuUsage();
    wallStart = process.hrtime.bigint();
}

socket.on('connect', () => {
    if (chatId) socket.emit('subscribe', token, chatId);
});
socket.on('subscribed', () => {
    startClock();
    process.stdout.write('ready\n');
});
socket.on('message', (message) => {
    // The least an application would do: find the text.
    if (message && typeof message.text === 'string') textBytes += message.text.length;
    if (++events !== count) return;
    const cpu = process.cpuUsage(cpuStart);
    const wall = Number(process.hrtime.bigint() - wallStart) / 1e9;
    const cpuSeconds = (cpu.user + cpu.system) / 1e6;
    const systemSeconds = cpu.system / 1e6;
    process.stdout.write(`${events} ${cpuSeconds} ${wall} ${peakResidentKiB()} ${systemSeconds}\n`);
    socket.close();
    process.exit(0);
});
socket.on('connect_error', (error) => {
    process.stderr.write(`node client: ${error.message}\n`);
    process.exit(1);
});
