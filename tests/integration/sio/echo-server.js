'use strict';
// A plain socket.io 4 server for the SocketIO library's own tests. It answers a few scripted
// requests so that the client can be driven through every corner of the protocol:
//   node echo-server.js --port 0 [--ping-interval ms] [--ping-timeout ms]
// prints one JSON line {"url","port"} once listening, and exits when stdin closes.
//
// Client events it understands:
//   "echo" (...args)          -> "echo" (...args)
//   "please-disconnect"       -> server-side disconnect of the socket
//   "please-binary"           -> "bin" with a Buffer (a binary packet), then "after-binary"
//   "please-raw" ([frames])   -> each text frame sent as it stands on the WebSocket, then "after-raw"
//   "please-raw-binary"       -> one bare binary WebSocket frame, then "after-raw"
//   "please-bad-text" ([hex]) -> each hex string's bytes as one fragment of a single text message
//                                (no UTF-8 check on the way out); the client's close code is kept
//   "last-close-code"         -> "close-code" (the close code of the last connection that ended)
//   "please-freeze" (ms)      -> blocks the event loop (no pings, no answers)
//   "please-big" (n)          -> "big" with a string of n characters, then "after-big"
//   "please-flood" (n, size)  -> "seq" (i, a string of size characters) for i = 0..n-1 at once
// A handshake query "reject=1" is refused by the connect middleware (a connect_error).

const http = require('http');
const path = require('path');

function loadSocketIO() {
    const searchPaths = [
        process.env.TAVLO_SIO_NODE_MODULES,
        path.join(__dirname, '..', '..', '..', 'emulator', 'node_modules'),
    ].filter(Boolean);
    return require(require.resolve('socket.io', {paths: searchPaths}));
}

function option(name, fallback) {
    const index = process.argv.indexOf(name);
    return index >= 0 && index + 1 < process.argv.length ? Number(process.argv[index + 1]) : fallback;
}

const {Server} = loadSocketIO();
const httpServer = http.createServer();
const io = new Server(httpServer, {
    pingInterval: option('--ping-interval', 25000),
    pingTimeout: option('--ping-timeout', 20000),
    serveClient: false,
    transports: ['websocket'],
});

io.use((socket, next) => {
    if (socket.handshake.query.reject === '1') return next(new Error('not authorized'));
    next();
});

let lastCloseCode = null;

io.on('connection', (socket) => {
    socket.conn.transport.socket.on('close', (code) => {
        lastCloseCode = code;
    });
    socket.on('last-close-code', () => socket.emit('close-code', lastCloseCode));
    socket.on('please-bad-text', (fragments) => {
        const ws = socket.conn.transport.socket;
        fragments.forEach((hex, i) => {
            ws.send(Buffer.from(hex, 'hex'), {binary: false, fin: i === fragments.length - 1});
        });
    });
    socket.emit('welcome', {query: socket.handshake.query, id: socket.id});
    socket.on('echo', (...args) => socket.emit('echo', ...args));
    socket.on('please-disconnect', () => socket.disconnect(true));
    socket.on('please-binary', () => {
        socket.emit('bin', Buffer.from([1, 2, 3]), {nested: Buffer.from([4])});
        socket.emit('after-binary', 'ok');
    });
    socket.on('please-raw', (frames) => {
        const ws = socket.conn.transport.socket;
        for (const frame of frames) ws.send(frame);
        socket.emit('after-raw', 'ok');
    });
    socket.on('please-raw-binary', () => {
        socket.conn.transport.socket.send(Buffer.from([9, 9, 9]));
        socket.emit('after-raw', 'ok');
    });
    socket.on('please-freeze', (ms) => {
        const until = Date.now() + ms;
        while (Date.now() < until) {
        }
    });
    socket.on('please-flood', (n, size) => {
        const padding = 'x'.repeat(size);
        for (let i = 0; i < n; i += 1) socket.emit('seq', i, padding);
    });
    socket.on('please-big', (n) => {
        socket.emit('big', 'x'.repeat(n));
        socket.emit('after-big', 'ok');
    });
});

httpServer.listen(option('--port', 0), '127.0.0.1', () => {
    const {port} = httpServer.address();
    process.stdout.write(JSON.stringify({url: `http://127.0.0.1:${port}`, port}) + '\n');
});

process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
process.on('SIGTERM', () => process.exit(0));
