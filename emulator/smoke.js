#!/usr/bin/env node
'use strict';
// Hand-run smoke check of the emulator: starts one plain and one TLS instance, walks through
// REST, realtime, archive and control routes, and prints "smoke: ok" or the first failure.
//
//   node smoke.js

const assert = require('node:assert/strict');
const fs = require('node:fs');
const http = require('node:http');
const https = require('node:https');
const path = require('node:path');
const {spawn} = require('node:child_process');
const {io} = require('socket.io-client');

const API_KEY = 'Kp4Zr8Tn2Wq6Xv9Bc3Md';

function start(args = []) {
    const child = spawn(process.execPath, [path.join(__dirname, 'server.js'), '--port', '0', ...args],
        {stdio: ['pipe', 'pipe', 'inherit']});
    return new Promise((resolve, reject) => {
        let buffer = '';
        child.stdout.on('data', (chunk) => {
            buffer += chunk;
            const newline = buffer.indexOf('\n');
            if (newline >= 0) resolve({child, info: JSON.parse(buffer.slice(0, newline))});
        });
        child.once('exit', (code) => reject(new Error(`emulator exited with ${code}`)));
    });
}

function request(info, method, pathAndQuery, {body, headers = {}} = {}) {
    const url = new URL(pathAndQuery, info.url);
    const text = body === undefined ? undefined : JSON.stringify(body);
    const lib = url.protocol === 'https:' ? https : http;
    const options = {
        method, headers: {'Content-Type': 'application/json', ...headers},
        ca: info.caFile ? fs.readFileSync(info.caFile) : undefined,
    };
    return new Promise((resolve, reject) => {
        const req = lib.request(url, options, (res) => {
            let data = '';
            res.on('data', (chunk) => { data += chunk; });
            res.on('end', () => {
                let json = null;
                try { json = JSON.parse(data); } catch { /* broken bodies stay text */ }
                resolve({status: res.statusCode, json, text: data});
            });
        });
        req.on('error', reject);
        if (text !== undefined) req.write(text);
        req.end();
    });
}

function query(params) {
    const search = new URLSearchParams();
    for (const [key, value] of Object.entries(params)) {
        if (Array.isArray(value)) for (const v of value) search.append(`${key}[]`, v);
        else search.append(key, value);
    }
    return search.toString();
}

function waitFor(socket, event, timeoutMs = 3000) {
    return new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`no "${event}" within ${timeoutMs} ms`)), timeoutMs);
        socket.once(event, (...args) => {
            clearTimeout(timer);
            resolve(args);
        });
    });
}

async function connectSocket(info, join) {
    const q = Object.fromEntries(new URLSearchParams(join.socket.query));
    const socket = io(join.socket.host, {
        path: join.socket.path, transports: ['websocket'], reconnection: false,
        query: {...q, userAgent: 'smoke'}, ca: info.caFile ? fs.readFileSync(info.caFile) : undefined,
    });
    await waitFor(socket, 'connect');
    socket.emit('subscribe', join.userMetas[0].userToken, q.chatId);
    await waitFor(socket, 'subscribed');
    return socket;
}

async function plainInstance() {
    const {child, info} = await start();
    const ctl = (method, p, body) => request(info, method, `/_control${p}`, {body});
    try {
        assert.equal((await request(info, 'GET', '/api-tokens')).status, 401);
        const token = (await request(info, 'GET', '/api-tokens', {headers: {'X-RestAPI-Key': API_KEY}})).json.token;
        const lobbyId = (await ctl('GET', '/info')).json.lobby.id;
        const profile = await request(info, 'GET', `/get-chat-profile-by-channel/${token}?channelCode=lobby&platform=demo-account`);
        assert.equal(profile.status, 200);
        assert.equal(profile.json.sticker, undefined);
        assert.equal((await request(info, 'GET', `/get-chat-profile-by-channel/?channelCode=lobby&platform=demo-account`)).json.code, 'InvalidRequestError');
        assert.equal((await request(info, 'GET', `/get-chat-profile-by-channel/${token}?channelCode=nope&platform=demo-account`)).status, 404);

        const jwt = async (member) => (await ctl('GET', `/members/${member}/jwt`)).json.jwt;
        const joinAs = async (member) => (await request(info, 'POST', `/add-users-to-chat/${token}`, {
            body: {chatId: lobbyId, newSocket: true}, headers: {Authorization: `Bearer ${await jwt(member)}`},
        })).json;
        const alice = await joinAs('alice');
        const bob = await joinAs('bob');
        assert.equal(alice.userMetas[0].role, 'MODERATOR');
        const aliceSocket = await connectSocket(info, alice);
        const bobSocket = await connectSocket(info, bob);
        const as = (join) => ({chatId: lobbyId, userToken: join.userMetas[0].userToken});

        const messageEvent = waitFor(aliceSocket, 'message');
        const sent = await request(info, 'POST', `/add-user-message-to-chat/${token}`, {
            body: {...as(bob), msgType: 'text', text: 'hi from bob', sourceType: 'IOS'},
        });
        assert.equal(sent.status, 200);
        const [message] = await messageEvent;
        assert.equal(message.id, sent.json.messageId);
        assert.match(message.createdDate, /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\+0000$/);

        const listed = await request(info, 'GET', `/get-messages-by-chat/${token}?${query({...as(bob), populateCreator: 'true', count: 2, order: 'desc', msgType: 'text'})}`);
        assert.equal(listed.json.messages.length, 2);
        assert.equal(listed.json.messages[0].id, sent.json.messageId);
        assert.equal(listed.json.messages[0].creator.userId, 'bob');

        const users = await request(info, 'GET', `/get-users-by-chat/${token}?${query({...as(bob), roles: ['MODERATOR', 'NORMAL'], statuses: ['ACTIVE']})}`);
        assert.ok(users.json.users.some((u) => u.userId === 'alice'));
        const logged = (await ctl('GET', '/requests?pathPrefix=/get-users-by-chat/')).json.requests[0];
        assert.deepEqual(logged.query['roles[]'], ['MODERATOR', 'NORMAL']);

        const pinned = waitFor(bobSocket, 'pinned_message');
        assert.equal((await request(info, 'POST', `/pinned-msg/${token}`, {body: {...as(bob), messageId: message.id}})).status, 403);
        assert.equal((await request(info, 'POST', `/pinned-msg/${token}`, {body: {...as(alice), messageId: message.id}})).status, 200);
        assert.equal((await pinned)[0].pinnedMsg.id, message.id);

        const updated = waitFor(aliceSocket, 'user_update');
        await request(info, 'PUT', `/block-users-in-chat/${token}`, {body: {...as(alice), targetUserLabels: [String(bob.userMetas[0].label)]}});
        assert.equal((await updated)[0][0].role, 'BLOCKED');
        assert.equal((await request(info, 'POST', `/add-user-message-to-chat/${token}`, {body: {...as(bob), msgType: 'text', text: 'x'}})).status, 403);
        await request(info, 'PUT', `/revive-users-in-chat/${token}`, {body: {...as(alice), targetUserLabels: [String(bob.userMetas[0].label)]}});

        const meta = waitFor(bobSocket, 'meta');
        await request(info, 'POST', `/chat-meta/${token}`, {body: {...as(alice), key: 'score', value: {home: 1}, broadcast: true}});
        assert.equal((await meta)[0][0].key, 'score');
        const read = await request(info, 'GET', `/chat-meta/${token}?${query({...as(bob), keys: ['score', 'topic']})}`);
        assert.equal(read.json.meta.length, 2);

        const agg = waitFor(aliceSocket, 'agg_data');
        await request(info, 'POST', `/add-user-message-to-chat/${token}`, {body: {...as(bob), msgType: 'aggregate', value: 'like'}});
        assert.deepEqual((await agg)[0].aggregated, [{key: 'like', n: 1}]);
        const raw = waitFor(aliceSocket, 'raw_data');
        await request(info, 'POST', `/add-user-message-to-chat/${token}`, {body: {...as(bob), msgType: 'raw', value: {a: [1, 2]}}});
        assert.deepEqual((await raw)[0].value, {a: [1, 2]});

        const removed = waitFor(bobSocket, 'message_remove');
        await request(info, 'DELETE', `/remove-message-from-chat/${token}?${query({...as(alice), messageId: message.id})}`);
        assert.equal((await removed)[0], message.id);

        // faults, delays, credentials
        await ctl('POST', '/faults', {pathPrefix: '/get-users-by-chat/', status: 500, code: 'DataAccessError', count: 1});
        const failing = `/get-users-by-chat/${token}?${query({...as(bob), roles: ['NORMAL'], statuses: ['ACTIVE']})}`;
        assert.deepEqual((await request(info, 'GET', failing)).json, {code: 'DataAccessError'});
        assert.equal((await request(info, 'GET', failing)).status, 200);
        await ctl('POST', '/faults', {pathPrefix: '/get-users-by-chat/', broken: true, status: 401});
        const broken = await request(info, 'GET', failing);
        assert.equal(broken.status, 401);
        assert.equal(broken.json, null);
        await ctl('POST', '/faults', {pathPrefix: '/get-users-by-chat/', drop: true});
        await assert.rejects(request(info, 'GET', failing));
        await ctl('POST', '/delays', {pathPrefix: '/get-users-by-chat/', ms: 300, count: 1});
        const before = Date.now();
        await request(info, 'GET', failing);
        assert.ok(Date.now() - before >= 290);

        const aliceJwt = await jwt('alice');
        const fresh = (await ctl('POST', '/jwt/expire', {jwt: aliceJwt})).json.jwt;
        const withJwt = (j) => ({body: {...as(alice), msgType: 'text', text: 'jwt'}, headers: {Authorization: `Bearer ${j}`}});
        assert.equal((await request(info, 'POST', `/add-user-message-to-chat/${token}`, withJwt(aliceJwt))).json.code, 'UnauthorizedError');
        assert.equal((await ctl('POST', '/jwt/refresh', {jwt: aliceJwt})).json.jwt, fresh);
        assert.equal((await request(info, 'POST', `/add-user-message-to-chat/${token}`, withJwt(fresh))).status, 200);

        // archive
        const arc = (await ctl('GET', '/chatrooms/lobby/archives')).json.archives[0];
        const metaDoc = await request(info, 'GET', arc.metaPath);
        assert.equal(metaDoc.json.files.length, 3);
        const file = await request(info, 'GET', `${arc.arcMsgURL}${arc.archiveId}/${arc.files[1].id}`);
        assert.equal(file.json.length, 5);
        const generated = (await ctl('POST', '/chatrooms/lobby/archives', {archiveId: 'big-archive-01', generate: {files: 1000, messagesPerFile: 1000}})).json;
        assert.equal((await request(info, 'GET', generated.files[999].path)).json.length, 1000);
        await ctl('POST', '/faults', {pathPrefix: arc.files[2].path, status: 404, code: 'EntityNotFoundError'});
        assert.equal((await request(info, 'GET', arc.files[2].path)).status, 404);

        // realtime control
        const custom = waitFor(aliceSocket, 'user_count');
        assert.equal((await ctl('POST', '/chatrooms/lobby/emit', {event: 'user_count', payload: {memberCount: 9, guestCount: null}})).json.delivered, 2);
        assert.deepEqual((await custom)[0], {memberCount: 9, guestCount: null});
        await ctl('POST', '/subscribed/hold', {chat: 'lobby'});
        const late = io(info.url, {path: '/socket.io', transports: ['websocket'], reconnection: false});
        await waitFor(late, 'connect');
        late.emit('subscribe', bob.userMetas[0].userToken, lobbyId);
        await assert.rejects(waitFor(late, 'subscribed', 300));
        const releasedWait = waitFor(late, 'subscribed');
        assert.equal((await ctl('POST', '/subscribed/release', {chat: 'lobby'})).json.released, 1);
        await releasedWait;
        late.close();
        await ctl('POST', '/subscribed/hold', {chat: 'lobby', hold: false});

        await ctl('POST', '/sockets/refuse', {mode: 'reject', count: 1});
        const refused = io(info.url, {path: '/socket.io', transports: ['websocket'], reconnection: false});
        await waitFor(refused, 'connect_error');
        refused.close();
        const lost = waitFor(aliceSocket, 'disconnect');
        assert.equal((await ctl('POST', '/chatrooms/lobby/sockets/drop', {mode: 'kill'})).json.dropped, 2);
        assert.equal((await lost)[0], 'transport close');

        await ctl('POST', '/api-tokens/expire', {});
        assert.equal((await request(info, 'GET', failing)).json.code, 'InvalidRequestError');

        // personal chatroom
        const token2 = (await request(info, 'GET', '/api-tokens', {headers: {'X-RestAPI-Key': API_KEY}})).json.token;
        const created = await request(info, 'POST', `/v2/chat/${token2}`, {
            body: {platform: 'demo-account', is_personal_chat: true, channel_code: 'bobs-room'},
            headers: {Authorization: `Bearer ${await jwt('bob')}`},
        });
        assert.equal(created.status, 200);
        assert.equal((await request(info, 'GET', `/get-chat-profile-by-channel/${token2}?channelCode=p%23bobs-room&platform=demo-account`)).status, 200);
        assert.equal((await request(info, 'POST', `/v2/chat/${token2}`, {
            body: {platform: 'demo-account', is_personal_chat: true, channel_code: 'bobs-room'},
            headers: {Authorization: `Bearer ${await jwt('bob')}`},
        })).json.code, 'DuplicateEntityError');
        bobSocket.close();
    } finally {
        const exited = new Promise((resolve) => child.once('exit', resolve));
        child.stdin.end();  // closing stdin must stop the emulator
        await exited;
    }
}

async function tlsInstance() {
    const {child, info} = await start(['--tls']);
    try {
        assert.ok(info.url.startsWith('https://127.0.0.1:'));
        assert.ok(fs.existsSync(info.caFile));
        const token = (await request(info, 'GET', '/api-tokens', {headers: {'X-RestAPI-Key': API_KEY}})).json.token;
        const lobbyId = (await request(info, 'GET', '/_control/info')).json.lobby.id;
        const guest = (await request(info, 'POST', `/add-users-to-chat/${token}`, {
            body: {chatId: lobbyId, targetUsers: [{name: 'Guest'}], newSocket: true},
        })).json;
        const socket = await connectSocket(info, guest);
        socket.close();
        await assert.rejects(request({...info, caFile: null}, 'GET', '/api-tokens'));
    } finally {
        const exited = new Promise((resolve) => child.once('exit', resolve));
        child.kill('SIGTERM');
        await exited;
    }
}

(async () => {
    await plainInstance();
    await tlsInstance();
    console.log('smoke: ok');
})().catch((err) => {
    console.error('smoke: FAILED\n', err);
    process.exit(1);
});
