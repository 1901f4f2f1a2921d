'use strict';
// Small helpers shared by every module: ids, the service's time stamps, JSON answers.

const crypto = require('node:crypto');

let objectIdCounter = crypto.randomInt(0, 0xffffff);

// Ids shaped like the service's own (24 hex digits, time first), so they sort by creation.
function newObjectId() {
    objectIdCounter = (objectIdCounter + 1) % 0x1000000;
    const seconds = Math.floor(Date.now() / 1000).toString(16).padStart(8, '0');
    const random = crypto.randomBytes(5).toString('hex');
    return seconds + random + objectIdCounter.toString(16).padStart(6, '0');
}

function randomToken(bytes = 16) {
    return crypto.randomBytes(bytes).toString('hex');
}

function pad(value, width) {
    return String(value).padStart(width, '0');
}

// The service writes "2024-05-01T12:00:00.000+0000": calendar date, UTC, numeric zone offset.
function formatServiceDate(ms) {
    const d = new Date(ms);
    return `${pad(d.getUTCFullYear(), 4)}-${pad(d.getUTCMonth() + 1, 2)}-${pad(d.getUTCDate(), 2)}` +
        `T${pad(d.getUTCHours(), 2)}:${pad(d.getUTCMinutes(), 2)}:${pad(d.getUTCSeconds(), 2)}` +
        `.${pad(d.getUTCMilliseconds(), 3)}+0000`;
}

// Accepts the service's own format (any numeric offset) and ISO 8601; NaN when neither.
function parseServiceDate(text) {
    if (typeof text !== 'string') return NaN;
    const m = /^(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2}):(\d{2})\.(\d{3})([+-])(\d{2})(\d{2})$/.exec(text);
    if (!m) return Date.parse(text);
    const [, y, mo, d, h, mi, s, ms, sign, oh, om] = m;
    const utc = Date.UTC(+y, +mo - 1, +d, +h, +mi, +s, +ms);
    const offset = (sign === '+' ? 1 : -1) * ((+oh) * 60 + (+om)) * 60000;
    return utc - offset;
}

class HttpError extends Error {
    constructor(status, code, message) {
        super(message || code);
        this.status = status;
        this.code = code;
    }
}

const errors = {
    badRequest: (msg) => new HttpError(400, 'BadRequestError', msg),
    unauthorized: (msg) => new HttpError(401, 'UnauthorizedError', msg),
    permission: (msg) => new HttpError(403, 'PermissionViolationError', msg),
    notFound: (msg) => new HttpError(404, 'EntityNotFoundError', msg),
    duplicate: (msg) => new HttpError(409, 'DuplicateEntityError', msg),
    invalidRequest: (msg) => new HttpError(409, 'InvalidRequestError', msg),
    tooMany: (msg) => new HttpError(429, 'TooManyRequestsError', msg),
    dataAccess: (msg) => new HttpError(500, 'DataAccessError', msg),
};

function errorBody(err) {
    return {code: err.code, message: err.message};
}

// A connection's remote address without the IPv4-mapped prefix Node may put in front.
function peerAddress(address) {
    return typeof address === 'string' ? address.replace(/^::ffff:/, '') : address;
}

module.exports = {
    peerAddress, newObjectId, randomToken, formatServiceDate, parseServiceDate, HttpError, errors, errorBody,
};
