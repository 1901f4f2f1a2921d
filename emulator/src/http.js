'use strict';
// The HTTP plumbing under every route: body and query parsing, JSON answers, the request log,
// and the scripted faults and delays that tests put in front of the service.

const {HttpError} = require('./util');

const MAX_BODY_BYTES = 4 * 1024 * 1024;

function readBody(req) {
    return new Promise((resolve, reject) => {
        const chunks = [];
        let size = 0;
        req.on('data', (chunk) => {
            size += chunk.length;
            if (size > MAX_BODY_BYTES) {
                reject(new HttpError(413, 'PayloadTooLargeError', 'request body too large'));
                req.destroy();
                return;
            }
            chunks.push(chunk);
        });
        req.on('end', () => resolve(Buffer.concat(chunks).toString('utf8')));
        req.on('error', reject);
        req.on('close', () => {
            if (!req.complete) reject(new HttpError(400, 'BadRequestError', 'request aborted'));
        });
    });
}

// Keeps the pairs as they came and a map in which a name ending in "[]" (and any repeated
// name) collects an array, so tests can check both the wire form and the values.
function parseQuery(searchParams) {
    const pairs = [];
    const query = {};
    for (const [key, value] of searchParams) {
        pairs.push([key, value]);
        if (key.endsWith('[]')) {
            (query[key] = query[key] || []).push(value);
        } else if (Object.prototype.hasOwnProperty.call(query, key)) {
            query[key] = [].concat(query[key], value);
        } else {
            query[key] = value;
        }
    }
    return {pairs, query};
}

// Parameters as the service reads them: "name[]" arrays answer to "name".
function queryParams(query) {
    const params = {};
    for (const [key, value] of Object.entries(query)) {
        if (key.endsWith('[]')) params[key.slice(0, -2)] = value;
        else params[key] = value;
    }
    return params;
}

function parseJsonBody(text) {
    if (text.length === 0) return {body: null, ok: true};
    try {
        return {body: JSON.parse(text), ok: true};
    } catch {
        return {body: null, ok: false};
    }
}

function sendJson(res, status, value, extraHeaders = {}) {
    if (res.headersSent || res.destroyed) return;
    const text = JSON.stringify(value);
    res.writeHead(status, {
        'Content-Type': 'application/json; charset=utf-8',
        'Content-Length': Buffer.byteLength(text),
        ...extraHeaders,
    });
    res.end(text);
}

function sendRaw(res, status, text, contentType = 'application/json; charset=utf-8', extraHeaders = {}) {
    if (res.headersSent || res.destroyed) return;
    res.writeHead(status, {'Content-Type': contentType, 'Content-Length': Buffer.byteLength(text), ...extraHeaders});
    res.end(text);
}

function sleep(ms) {
    return new Promise((resolve) => setTimeout(resolve, ms));
}

// A bounded log, so a benchmark run cannot grow the emulator without end.
class BoundedLog {
    constructor(limit) {
        this.limit = limit;
        this.entries = [];
        this.sequence = 0;
    }

    add(entry) {
        entry.seq = ++this.sequence;
        entry.time = Date.now();
        this.entries.push(entry);
        if (this.entries.length > this.limit) this.entries.splice(0, this.entries.length - this.limit);
        return entry;
    }

    list(filter = () => true) {
        return this.entries.filter(filter);
    }

    clear() {
        const count = this.entries.length;
        this.entries = [];
        return count;
    }
}

// Scripted behaviour for the next requests whose path starts with a prefix (or is one path): a status and JSON
// body, a broken body, a dropped connection, or only a delay. Rules are consumed in the order
// they were added; a rule without a count stays until cleared.
class FaultRules {
    constructor() {
        this.rules = [];
        this.nextId = 1;
        this.heldAnswers = [];
    }

    // An answer held back (the request was carried out): it leaves on release, or after 30 s
    // should a test forget to release it.
    holdAnswer() {
        return new Promise((resolve) => {
            const timer = setTimeout(() => this.release(), 30000);
            this.heldAnswers.push(() => {
                clearTimeout(timer);
                resolve();
            });
        });
    }

    release() {
        const held = this.heldAnswers;
        this.heldAnswers = [];
        for (const leave of held) leave();
        return held.length;
    }

    add(request) {
        const rule = {
            id: this.nextId++,
            pathPrefix: request.path === undefined ? request.pathPrefix || '/' : null,
            path: request.path === undefined ? null : request.path,
            method: request.method ? String(request.method).toUpperCase() : null,
            remaining: request.count === null || request.count === undefined ? null : Number(request.count),
            action: request.action,
            status: request.status,
            body: request.body,
            rawBody: request.rawBody,
            retryAfter: request.retryAfter,
            delayMs: Number(request.delayMs || 0),
            hits: 0,
        };
        this.rules.push(rule);
        return rule;
    }

    // Takes the first matching fault rule and the first matching delay rule (a delay may
    // stand in front of a fault).
    take(method, path) {
        const matches = (rule) => (rule.path !== null ? path === rule.path : path.startsWith(rule.pathPrefix)) &&
            (!rule.method || rule.method === method) && (rule.remaining === null || rule.remaining > 0);
        const fault = this.rules.find((rule) => rule.action !== 'delay' && matches(rule));
        const delay = this.rules.find((rule) => rule.action === 'delay' && matches(rule));
        for (const rule of [fault, delay]) {
            if (!rule) continue;
            rule.hits += 1;
            if (rule.remaining !== null) rule.remaining -= 1;
        }
        this.rules = this.rules.filter((rule) => rule.remaining === null || rule.remaining > 0);
        return {fault, delay};
    }

    list() {
        return this.rules.map((rule) => ({...rule}));
    }

    clear() {
        const count = this.rules.length;
        this.rules = [];
        this.release();
        return count;
    }
}

// Plays a fault out on the response; true when the request is answered by it.
function applyFault(fault, req, res) {
    switch (fault.action) {
    case 'drop':
        req.socket.destroy();
        return true;
    case 'broken':
        sendRaw(res, fault.status || 200, fault.rawBody ?? '<html>not json{', 'application/json; charset=utf-8');
        return true;
    case 'status': {
        const headers = fault.retryAfter === undefined ? {} : {'Retry-After': fault.retryAfter};
        if (fault.rawBody !== undefined) sendRaw(res, fault.status, String(fault.rawBody), undefined, headers);
        else sendJson(res, fault.status, fault.body ?? {}, headers);
        return true;
    }
    default:
        return false;
    }
}

module.exports = {
    readBody, parseQuery, queryParams, parseJsonBody, sendJson, sendRaw, sleep, BoundedLog,
    FaultRules, applyFault,
};
