'use strict';
// Continuous traffic for reconnection tests and soak runs: a chatroom receives numbered messages
// at a steady rate, stored and announced exactly as sent ones are, so a client that misses some
// live can still list them. Every id is kept in announcement order for the test to compare.

const {errors} = require('./util');

const TICK_MS = 5;

class MessageStreams {
    constructor(model) {
        this.model = model;
        this.streams = new Map(); // chat id -> stream
    }

    start(chat, {rate = 50, rawEvery = 0, textPrefix = 'stream', count = null} = {}) {
        this.stop(chat);
        if (!(Number(rate) > 0)) throw errors.badRequest('"rate" must be a number above 0');
        const stream = {
            chat, rate: Number(rate), rawEvery: Number(rawEvery) || 0, textPrefix: String(textPrefix),
            limit: count === null || count === undefined ? null : Number(count),
            startedMs: Date.now(), ids: [], timer: null,
        };
        stream.timer = setInterval(() => this.tick(stream), TICK_MS);
        this.streams.set(chat.id, stream);
        return this.describe(chat);
    }

    // Catches up with the rate: the messages due since the start that are not out yet.
    tick(stream) {
        const due = Math.floor(((Date.now() - stream.startedMs) * stream.rate) / 1000);
        const target = stream.limit === null ? due : Math.min(due, stream.limit);
        while (stream.ids.length < target) this.announceNext(stream);
        if (stream.limit !== null && stream.ids.length >= stream.limit) this.halt(stream);
    }

    announceNext(stream) {
        const n = stream.ids.length + 1;
        const raw = stream.rawEvery > 0 && n % stream.rawEvery === 0;
        // One millisecond apart at least, so that time order is announcement order across kinds.
        const createdMs = Math.max(Date.now(), (stream.lastMs ?? 0) + 1);
        stream.lastMs = createdMs;
        const msg = this.model.addMessage(stream.chat, raw
            ? {msgType: 'raw', value: {stream: stream.textPrefix, n}, createdMs}
            : {msgType: 'text', value: `${stream.textPrefix} ${n}`, createdMs});
        stream.ids.push(msg.id);
    }

    halt(stream) {
        clearInterval(stream.timer);
        stream.timer = null;
    }

    describe(chat) {
        const stream = this.streams.get(chat.id);
        if (!stream) return {running: false, announced: 0, ids: []};
        return {running: stream.timer !== null, rate: stream.rate, announced: stream.ids.length, ids: stream.ids};
    }

    stop(chat) {
        const stream = this.streams.get(chat.id);
        if (stream) this.halt(stream);
        return this.describe(chat);
    }

    reset() {
        for (const stream of this.streams.values()) this.halt(stream);
        this.streams.clear();
    }
}

module.exports = {MessageStreams};
