'use strict';
// Member JSON Web Tokens: HS256, signed with a secret made at start. The SDK never decodes
// them; the emulator reads "sub" (the member id) and "exp" to tell members apart and expire them.

const crypto = require('node:crypto');

function base64url(buffer) {
    return Buffer.from(buffer).toString('base64url');
}

class JwtIssuer {
    constructor() {
        this.secret = crypto.randomBytes(32);
        this.revoked = new Set();
    }

    sign(claims) {
        const header = base64url(JSON.stringify({alg: 'HS256', typ: 'JWT'}));
        const payload = base64url(JSON.stringify(claims));
        const signature = this.signature(`${header}.${payload}`);
        return `${header}.${payload}.${signature}`;
    }

    signature(input) {
        return crypto.createHmac('sha256', this.secret).update(input).digest('base64url');
    }

    // Decodes a token of ours whatever its expiry; null when it is not one of ours.
    decode(token) {
        if (typeof token !== 'string') return null;
        const parts = token.split('.');
        if (parts.length !== 3) return null;
        const expected = Buffer.from(this.signature(`${parts[0]}.${parts[1]}`));
        const given = Buffer.from(parts[2]);
        if (expected.length !== given.length || !crypto.timingSafeEqual(expected, given)) return null;
        try {
            return JSON.parse(Buffer.from(parts[1], 'base64url').toString('utf8'));
        } catch {
            return null;
        }
    }

    // {claims} for a live token, {error} naming why it is refused otherwise.
    verify(token, nowMs = Date.now()) {
        const claims = this.decode(token);
        if (!claims) return {error: 'malformed or foreign JWT'};
        if (this.revoked.has(token)) return {error: 'JWT expired'};
        if (typeof claims.exp === 'number' && claims.exp * 1000 <= nowMs) return {error: 'JWT expired'};
        return {claims};
    }

    revoke(token) {
        this.revoked.add(token);
    }
}

module.exports = {JwtIssuer};
