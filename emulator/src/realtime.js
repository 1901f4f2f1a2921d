'use strict';
// The realtime channel: the official socket.io 4 server on the emulator's port. A client
// subscribes with ("subscribe", userToken, chatId) and then receives every announcement of the
// chatroom. Tests can refuse or stall new connections, hold back "subscribed", drop sockets and
// emit anything they like.

const {Server} = require('socket.io');
const {peerAddress} = require('./util');

const REFUSAL_MODES = ['reject', 'connect_error', 'hang'];
const DROP_MODES = ['disconnect', 'close', 'kill', 'freeze', 'invalid-utf8'];
const FLOOD_CHUNK = 500;

class Realtime {
    constructor({httpServer, model, log, events, path, pingInterval, pingTimeout}) {
        this.model = model;
        this.log = log;
        this.events = events;
        this.path = path;
        this.refusal = null;
        this.hungRequests = new Set();
        this.holdAll = false;
        this.held = [];
        this.io = new Server(httpServer, {
            path,
            pingInterval,
            pingTimeout,
            serveClient: false,
            allowRequest: (req, callback) => this.allowRequest(req, callback),
        });
        this.io.use((socket, next) => this.connectMiddleware(socket, next));
        this.io.on('connection', (socket) => this.onConnection(socket));
        model.announceListener = (chat, event, payload) => this.announce(chat, event, payload);
    }

    // ---- connection admission ----

    takeRefusal() {
        const refusal = this.refusal;
        if (!refusal) return null;
        if (refusal.remaining !== null) {
            refusal.remaining -= 1;
            if (refusal.remaining <= 0) this.refusal = null;
        }
        return refusal.mode;
    }

    refuse(mode, count) {
        if (mode === 'off' || mode === null) {
            this.refusal = null;
            this.releaseHungRequests();
            return;
        }
        if (!REFUSAL_MODES.includes(mode)) throw new Error(`mode must be one of ${REFUSAL_MODES.join(', ')}, off`);
        this.refusal = {mode, remaining: count === undefined || count === null ? null : Number(count)};
    }

    allowRequest(req, callback) {
        const mode = this.refusal && this.refusal.mode !== 'connect_error' ? this.takeRefusal() : null;
        if (mode === 'reject') {
            this.logSocket({type: 'refused', mode, url: req.url});
            callback('connections refused by the emulator', false);
        } else if (mode === 'hang') {
            // Never answer: the client's own connect time-out has to end the attempt.
            this.logSocket({type: 'refused', mode, url: req.url});
            this.hungRequests.add(req.socket);
            req.socket.once('close', () => this.hungRequests.delete(req.socket));
        } else {
            callback(null, true);
        }
    }

    releaseHungRequests() {
        for (const socket of this.hungRequests) socket.destroy();
        this.hungRequests.clear();
    }

    connectMiddleware(socket, next) {
        if (this.refusal && this.refusal.mode === 'connect_error') {
            this.takeRefusal();
            this.logSocket({type: 'refused', mode: 'connect_error', socketId: socket.id});
            next(new Error('connections refused by the emulator'));
            return;
        }
        next();
    }

    // ---- connected sockets ----

    logSocket(entry) {
        this.log.add({kind: 'socket', ...entry});
    }

    onConnection(socket) {
        this.logSocket({
            type: 'connect', socketId: socket.id, query: {...socket.handshake.query},
            headers: socket.handshake.headers, peer: peerAddress(socket.handshake.address),
        });
        socket.onAny((event, ...args) => this.logSocket({type: 'event', socketId: socket.id, event, args}));
        socket.on('subscribe', (userToken, chatId) => this.subscribe(socket, userToken, chatId));
        socket.on('disconnect', (reason) => this.logSocket({type: 'disconnect', socketId: socket.id, reason}));
    }

    subscribe(socket, userToken, chatId) {
        const chat = typeof chatId === 'string' ? this.model.chats.get(chatId) : null;
        const found = chat ? this.model.userForTokenAnyChat(userToken) : null;
        if (!chat || !found || found.chat !== chat) {
            socket.emit('error', 'subscribe refused: unknown chat id or user token');
            return;
        }
        socket.data.chatId = chat.id;
        socket.data.label = found.user.label;
        socket.join(chat.id);
        if (this.holdAll || chat.holdSubscribed) this.held.push({socket, chatId: chat.id});
        else this.sendSubscribed(socket, chat.id);
    }

    sendSubscribed(socket, chatId) {
        if (socket.connected) socket.emit('subscribed', {chatId});
    }

    hold(chat, on) {
        if (chat) chat.holdSubscribed = on;
        else this.holdAll = on;
    }

    release(chat) {
        const releasing = this.held.filter((entry) => !chat || entry.chatId === chat.id);
        this.held = this.held.filter((entry) => !releasing.includes(entry));
        for (const entry of releasing) this.sendSubscribed(entry.socket, entry.chatId);
        return releasing.length;
    }

    // ---- emitting ----

    announce(chat, event, payload) {
        this.events.add({chatId: chat.id, event, payload});
        this.io.to(chat.id).emit(event, payload);
    }

    emit(chat, event, args) {
        this.events.add({chatId: chat.id, event, payload: args.length === 1 ? args[0] : args, scripted: true});
        this.io.to(chat.id).emit(event, ...args);
        return this.io.sockets.adapter.rooms.get(chat.id)?.size || 0;
    }

    // Sends the same event many times, in chunks so the event loop keeps serving. The frame is
    // encoded once (a Socket.IO EVENT packet of the main namespace) and written straight to each
    // subscriber's Engine.IO connection, so the emulator's own cost stays out of benchmarks.
    flood(chat, event, args, count) {
        const frame = `2${JSON.stringify([event, ...args])}`;
        this.events.add({chatId: chat.id, event, payload: args.length === 1 ? args[0] : args, scripted: true, count});
        return new Promise((resolve) => {
            const started = process.hrtime.bigint();
            let sent = 0;
            const step = () => {
                const end = Math.min(count, sent + FLOOD_CHUNK);
                const targets = this.sockets(chat).filter((socket) => socket.rooms.has(chat.id));
                for (; sent < end; sent += 1) for (const socket of targets) socket.conn.write(frame);
                if (sent < count) setImmediate(step);
                else resolve({sent, ms: Number(process.hrtime.bigint() - started) / 1e6});
            };
            step();
        });
    }

    // ---- inspection and dropping ----

    sockets(chat) {
        return [...this.io.of('/').sockets.values()]
            .filter((socket) => !chat || socket.data.chatId === chat.id);
    }

    describe(socket) {
        return {
            socketId: socket.id,
            chatId: socket.data.chatId || null,
            label: socket.data.label ?? null,
            frozen: Boolean(socket.data.frozen),
            query: {...socket.handshake.query},
        };
    }

    drop(chat, mode = 'disconnect') {
        if (!DROP_MODES.includes(mode)) throw new Error(`mode must be one of ${DROP_MODES.join(', ')}`);
        const sockets = this.sockets(chat);
        for (const socket of sockets) this.dropSocket(socket, mode);
        return sockets.length;
    }

    dropSocket(socket, mode) {
        const conn = socket.conn;
        if (mode === 'disconnect') {
            socket.disconnect(true);
        } else if (mode === 'close') {
            conn.close();
        } else if (mode === 'invalid-utf8') {
            // A text frame whose bytes are not UTF-8: the client must fail the connection (1007).
            const ws = conn.transport?.socket;
            if (ws) ws.send(Buffer.from([0x34, 0x32, 0x5b, 0x22, 0xff, 0xfe, 0x22, 0x5d]), {binary: false});
            else conn.close();
        } else if (mode === 'kill') {
            // Tear the TCP connection down without any closing handshake: a lost connection.
            const raw = conn.transport?.socket?._socket || conn.request?.socket;
            if (raw) raw.destroy();
            else conn.close();
        } else {
            // Stop the heartbeat and the events: the client must notice the silence itself.
            clearTimeout(conn.pingIntervalTimer);
            clearTimeout(conn.pingTimeoutTimer);
            conn.pingIntervalTimer = null;
            conn.pingTimeoutTimer = null;
            for (const room of [...socket.rooms]) if (room !== socket.id) socket.leave(room);
            socket.data.frozen = true;
        }
    }

    // Back to a fresh start: no sockets, no refusal, nothing held.
    reset() {
        this.drop(null, 'disconnect');
        this.refuse('off');
        this.holdAll = false;
        this.held = [];
    }

    close() {
        this.releaseHungRequests();
        this.io.close();
    }
}

module.exports = {Realtime, REFUSAL_MODES, DROP_MODES};
