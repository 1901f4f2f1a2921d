#!/usr/bin/env node
'use strict';
// Local emulator of the Tavlo messaging service: REST, archive service, Socket.IO realtime
// channel and a control API for tests, all on one loopback port.
//
//   node server.js --port 0 [--tls] [--ping-interval ms] [--ping-timeout ms]
//
// Prints one JSON line ({"url", "port", "tls", "caFile", "socketPath"}) once it listens, and
// exits on SIGTERM, SIGINT, or when its standard input (a pipe) closes.

const fs = require('node:fs');
const http = require('node:http');
const https = require('node:https');

const {JwtIssuer} = require('./src/jwt');
const {Model} = require('./src/model');
const {makeCertificates} = require('./src/tls');
const {Realtime} = require('./src/realtime');
const {MessageStreams} = require('./src/stream');
const {seedDefaults} = require('./src/defaults');
const {makeRoutes, handleControl} = require('./src/control');
const {matchRoute, bearerToken} = require('./src/rest');
const {isArchivePath, handleArchive} = require('./src/archive');
const {HttpError, errors, errorBody, peerAddress} = require('./src/util');
const {
    readBody, parseQuery, queryParams, parseJsonBody, sendJson, sendRaw, sleep, BoundedLog, FaultRules,
    applyFault,
} = require('./src/http');

const REST_API_KEY = 'Kp4Zr8Tn2Wq6Xv9Bc3Md';
const SOCKET_PATH = '/socket.io';

function parseArgs(argv) {
    const options = {
        port: 0, tls: false, pingInterval: 25000, pingTimeout: 20000, logLimit: 20000,
        stdinWatch: 'auto', verbose: false,
    };
    for (let i = 0; i < argv.length; i += 1) {
        const arg = argv[i];
        const next = () => {
            if (i + 1 >= argv.length) throw new Error(`${arg} needs a value`);
            return argv[++i];
        };
        if (arg === '--port') options.port = Number(next());
        else if (arg === '--tls') options.tls = true;
        else if (arg === '--ping-interval') options.pingInterval = Number(next());
        else if (arg === '--ping-timeout') options.pingTimeout = Number(next());
        else if (arg === '--log-limit') options.logLimit = Number(next());
        else if (arg === '--stdin-watch') options.stdinWatch = next();
        else if (arg === '--verbose') options.verbose = true;
        else throw new Error(`unknown argument ${arg}`);
    }
    return options;
}

// Watching stdin protects against orphans when a test runner spawns us with a pipe; a shell job
// started with stdin on /dev/null or a terminal must not exit at once, so "auto" watches pipes only.
function shouldWatchStdin(mode) {
    if (mode === 'on') return true;
    if (mode === 'off') return false;
    try {
        const stat = fs.fstatSync(0);
        return stat.isFIFO() || stat.isSocket();
    } catch {
        return false;
    }
}

class Emulator {
    constructor(options) {
        this.options = options;
        this.certificates = options.tls ? makeCertificates() : null;
        this.log = new BoundedLog(options.logLimit);
        this.events = new BoundedLog(options.logLimit);
        this.faults = new FaultRules();
        this.model = new Model({jwt: new JwtIssuer(), baseUrl: () => this.url});
        const handler = (req, res) => this.handle(req, res);
        this.server = this.certificates
            ? https.createServer({key: this.certificates.key, cert: this.certificates.cert}, handler)
            : http.createServer(handler);
        this.server.keepAliveTimeout = 30000;
        this.realtime = new Realtime({
            httpServer: this.server, model: this.model, log: this.log, events: this.events,
            path: SOCKET_PATH, pingInterval: options.pingInterval, pingTimeout: options.pingTimeout,
        });
        this.streams = new MessageStreams(this.model);
        this.controlRoutes = makeRoutes({
            model: this.model, realtime: this.realtime, log: this.log, events: this.events, faults: this.faults,
            streams: this.streams,
            info: () => this.info(), reset: () => this.reset(),
        });
    }

    listen() {
        return new Promise((resolve, reject) => {
            this.server.once('error', reject);
            this.server.listen(this.options.port, '127.0.0.1', () => {
                this.port = this.server.address().port;
                this.url = `${this.certificates ? 'https' : 'http'}://127.0.0.1:${this.port}`;
                seedDefaults(this.model);
                resolve();
            });
        });
    }

    announcement() {
        return {
            url: this.url, port: this.port, tls: Boolean(this.certificates),
            caFile: this.certificates ? this.certificates.caFile : null, socketPath: SOCKET_PATH,
        };
    }

    info() {
        const lobby = this.model.findChat('demo-account', 'lobby');
        return {
            ...this.announcement(),
            apiKey: REST_API_KEY,
            defaultPlatform: 'demo-account',
            lobby: lobby
                ? {id: lobby.id, channelCode: lobby.channelCode, arcMsgURL: this.model.archiveBaseUrl(lobby)}
                : null,
            members: [...this.model.members.values()].map((m) => ({memberId: m.memberId, name: m.name})),
        };
    }

    reset() {
        this.streams.reset();
        this.realtime.reset();
        for (const chat of this.model.chats.values()) clearTimeout(chat.aggregation.timer);
        this.model.reset();
        seedDefaults(this.model);
        this.faults.clear();
        this.log.clear();
        this.events.clear();
    }

    async handle(req, res) {
        const url = new URL(req.url, 'http://emulator');
        const method = req.method.toUpperCase();
        try {
            const text = await readBody(req);
            if (url.pathname === '/_control' || url.pathname.startsWith('/_control/')) {
                await this.handleControlRequest(method, url, text, res);
            } else {
                await this.handleServiceRequest(req, res, method, url, text);
            }
        } catch (err) {
            this.fail(res, err);
        }
    }

    async handleControlRequest(method, url, text, res) {
        const {body, ok} = parseJsonBody(text);
        if (!ok) throw errors.badRequest('control bodies are JSON');
        const {query} = parseQuery(url.searchParams);
        try {
            sendJson(res, 200, await handleControl(this.controlRoutes, method, url.pathname, query, body));
        } catch (err) {
            if (err instanceof HttpError) throw err;
            throw errors.badRequest(err.message);
        }
    }

    async handleServiceRequest(req, res, method, url, text) {
        const {pairs, query} = parseQuery(url.searchParams);
        const {body, ok} = parseJsonBody(text);
        const entry = this.log.add({
            kind: 'http', method, path: url.pathname, url: req.url, headers: req.headers, query,
            peer: peerAddress(req.socket.remoteAddress),
            queryPairs: pairs, body, rawBody: ok ? undefined : text, status: null,
        });
        res.on('finish', () => {
            entry.status = res.statusCode;
        });
        if (this.options.verbose) process.stderr.write(`${method} ${req.url}\n`);

        const {fault, delay} = this.faults.take(method, url.pathname);
        if (delay) await sleep(delay.delayMs);
        if (fault && fault.action !== 'dropAnswer' && fault.action !== 'holdAnswer') {
            entry.fault = fault.action;
            if (fault.delayMs) await sleep(fault.delayMs);
            applyFault(fault, req, res);
            return;
        }
        if (!ok && (method === 'POST' || method === 'PUT')) throw errors.badRequest('body must be JSON');
        const answer = this.serve(req, method, url, query, body);
        if (fault && fault.action === 'holdAnswer') {
            // Read now, answered later: the answer is older than whatever happens meanwhile.
            entry.fault = fault.action;
            const readNow = JSON.stringify(answer);
            await this.faults.holdAnswer();
            sendRaw(res, 200, readNow, 'application/json; charset=utf-8');
            return;
        } else if (fault) {
            // The request is carried out, then the connection dies before the answer leaves.
            entry.fault = fault.action;
            if (fault.delayMs) await sleep(fault.delayMs);
            req.socket.destroy();
            return;
        }
        sendJson(res, 200, answer);
    }

    serve(req, method, url, query, body) {
        if (url.pathname === '/api-tokens') return this.issueApiToken(req, method);
        if (isArchivePath(url.pathname)) return handleArchive(this.model, method, url.pathname);
        const route = matchRoute(method, url.pathname);
        if (!route) throw new HttpError(404, 'RouteNotFound', `no endpoint ${url.pathname}`);
        if (route.status) throw new HttpError(405, 'MethodNotAllowed', `${method} not allowed on ${url.pathname}`);
        if (!this.model.isApiTokenValid(route.token)) throw errors.invalidRequest('missing or stale API token');
        const member = this.model.memberFromBearer(bearerToken(req.headers.authorization));
        const params = method === 'GET' || method === 'DELETE' ? queryParams(query) : body;
        if (params === null || typeof params !== 'object' || Array.isArray(params)) {
            throw errors.badRequest('parameters must form a JSON object');
        }
        return route.handler({
            model: this.model, params, member,
            socketInfo: {host: this.url, path: SOCKET_PATH},
        });
    }

    issueApiToken(req, method) {
        if (method !== 'GET') throw new HttpError(405, 'MethodNotAllowed', 'GET only');
        if (req.headers['x-restapi-key'] !== REST_API_KEY) throw errors.unauthorized('bad or missing X-RestAPI-Key');
        return {token: this.model.issueApiToken()};
    }

    fail(res, err) {
        if (err instanceof HttpError) {
            sendJson(res, err.status, errorBody(err));
            return;
        }
        process.stderr.write(`emulator: internal error: ${err && err.stack ? err.stack : err}\n`);
        sendJson(res, 500, {code: 'InternalError', message: String(err && err.message)});
    }

    close() {
        this.streams.reset();
        this.realtime.close();
        this.server.closeAllConnections?.();
        this.server.close();
        if (this.certificates) this.certificates.cleanup();
    }
}

async function main() {
    let options;
    try {
        options = parseArgs(process.argv.slice(2));
    } catch (err) {
        process.stderr.write(`emulator: ${err.message}\n`);
        process.exit(2);
    }
    const emulator = new Emulator(options);
    await emulator.listen();
    process.stdout.write(`${JSON.stringify(emulator.announcement())}\n`);

    let closing = false;
    const shutdown = () => {
        if (closing) return;
        closing = true;
        emulator.close();
        setTimeout(() => process.exit(0), 200).unref();
    };
    process.on('SIGTERM', shutdown);
    process.on('SIGINT', shutdown);
    if (shouldWatchStdin(options.stdinWatch)) {
        process.stdin.on('end', shutdown);
        process.stdin.on('close', shutdown);
        process.stdin.on('error', shutdown);
        process.stdin.resume();
    }
}

// A fault in one handler must not take the whole emulator (and every test using it) down.
process.on('uncaughtException', (err) => {
    process.stderr.write(`emulator: uncaught: ${err && err.stack ? err.stack : err}\n`);
});

main().catch((err) => {
    process.stderr.write(`emulator: ${err && err.stack ? err.stack : err}\n`);
    process.exit(1);
});
