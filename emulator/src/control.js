'use strict';
// The control API under "/_control/": JSON in, JSON out. Tests use it to seed data, mint and
// expire credentials, script failures and delays, read what the emulator received, and drive
// the realtime channel. Every route is listed in README.md.

const {errors, HttpError, parseServiceDate} = require('./util');
const {DEFAULT_PLATFORM} = require('./defaults');
const {addArchive} = require('./archive');

function requireField(body, name) {
    if (!body || !(name in body)) throw errors.badRequest(`"${name}" is required`);
    return body[name];
}

function chatSummary(model, chat) {
    return {
        id: chat.id,
        channelCode: chat.channelCode,
        platform: chat.platform,
        personal: chat.personal,
        chatWriteMode: chat.chatWriteMode,
        inputInterval: chat.inputInterval,
        arcMsgURL: model.archiveBaseUrl(chat),
        ...model.counts(chat),
        userCount: chat.users.size,
        messageCount: chat.messages.length,
        pinnedMessageId: chat.pinnedMessageId,
        aggregated: model.aggregatedJson(chat),
        archives: [...chat.archives.keys()],
        holdSubscribed: chat.holdSubscribed,
    };
}

function userWithToken(model, chat, user, token) {
    return {...model.userJson(user), ...(token ? {userToken: token} : {})};
}

function archiveSummary(model, chat, archive) {
    const base = `/archive/${chat.id}/${archive.archiveId}`;
    return {
        archiveId: archive.archiveId,
        arcMsgURL: model.archiveBaseUrl(chat),
        metaPath: `${base}/meta`,
        files: archive.files.map((f) => ({id: f.id, start: f.start, end: f.end, len: f.len, path: `${base}/${f.id}`})),
    };
}

function eventArgs(body) {
    if (Array.isArray(body.args)) return body.args;
    return 'payload' in body ? [body.payload] : [];
}

function faultRule(body) {
    if (!body || (body.pathPrefix === undefined && body.path === undefined)) {
        throw errors.badRequest('"pathPrefix" or "path" is required');
    }
    const rule = {pathPrefix: body.pathPrefix, path: body.path, method: body.method, count: body.count ?? 1};
    if (body.drop) return {...rule, action: 'drop'};
    if (body.dropAnswer) return {...rule, action: 'dropAnswer'};
    if (body.holdAnswer) return {...rule, action: 'holdAnswer'};
    if (body.broken) return {...rule, action: 'broken', status: body.status || 200, rawBody: body.rawBody};
    const retryAfter = retryAfterValue(body.retryAfter);
    if (body.rateLimit) {
        // The service's way of asking a client to slow down; "code": null sends a bare 429.
        const code = body.code === undefined ? 'TooManyRequestsError' : body.code;
        return {...rule, action: 'status', status: 429, body: code === null ? {} : {code}, retryAfter};
    }
    const status = Number(requireField(body, 'status'));
    if (!Number.isInteger(status) || status < 100 || status > 599) throw errors.badRequest('status must be an HTTP status');
    let responseBody = body.body;
    if (responseBody === undefined && body.code !== undefined) responseBody = {code: body.code};
    return {...rule, action: 'status', status, body: responseBody, rawBody: body.rawBody, retryAfter};
}

// A Retry-After header value: whole seconds (a number) or an HTTP date (a string, sent as it is).
function retryAfterValue(value) {
    if (value === undefined || value === null) return undefined;
    if (typeof value === 'string') return value;
    const seconds = Number(value);
    if (!Number.isInteger(seconds) || seconds < 0) throw errors.badRequest('retryAfter must be whole seconds or an HTTP date');
    return String(seconds);
}

function makeRoutes(ctx) {
    const {model, realtime, log, events, faults, streams} = ctx;
    const chatOf = (params, query) => model.resolveChat(params.chat, query.platform || DEFAULT_PLATFORM);
    // Settings changes are announced as the service would announce them.
    const updateChat = (chat, body) => {
        if (body.chatWriteMode !== undefined) model.setWriteMode(chat, body.chatWriteMode);
        if (body.inputInterval !== undefined) model.setInputInterval(chat, body.inputInterval);
        if (body.memberCount !== undefined || body.guestCount !== undefined) model.setCounts(chat, body);
        if (body.stickers !== undefined) chat.stickers = body.stickers;
        if (body.aggregationWindowMs !== undefined) {
            model.flushAggregation(chat);
            chat.aggregation.windowMs = Number(body.aggregationWindowMs);
        }
        return chatSummary(model, chat);
    };

    return [
        ['GET', '/info', () => ctx.info()],
        ['POST', '/reset', () => {
            ctx.reset();
            return {reset: true};
        }],

        // ---- request log and announcement log ----
        ['GET', '/requests', (p, q) => ({
            requests: log.list((e) => (!q.kind || e.kind === q.kind) &&
                (!q.method || e.method === String(q.method).toUpperCase()) &&
                (!q.pathPrefix || (e.path || '').startsWith(q.pathPrefix)) &&
                (!q.since || e.seq > Number(q.since))),
        })],
        ['DELETE', '/requests', () => ({cleared: log.clear()})],
        ['GET', '/events', (p, q) => {
            const chat = q.chat ? model.resolveChat(q.chat, q.platform || DEFAULT_PLATFORM) : null;
            return {
                events: events.list((e) => (!chat || e.chatId === chat.id) && (!q.event || e.event === q.event) &&
                    (!q.since || e.seq > Number(q.since))),
            };
        }],
        ['DELETE', '/events', () => ({cleared: events.clear()})],

        // ---- faults and delays ----
        ['POST', '/faults', (p, q, body) => ({rule: faults.add(faultRule(body))})],
        ['POST', '/delays', (p, q, body) => ({
            rule: faults.add({
                pathPrefix: body.pathPrefix, path: body.path, method: body.method, count: body.count ?? null,
                action: 'delay', delayMs: Number(requireField(body, 'ms')),
            }),
        })],
        ['GET', '/faults', () => ({rules: faults.list()})],
        ['POST', '/faults/release', () => ({released: faults.release()})],
        ['DELETE', '/faults', () => ({cleared: faults.clear()})],

        // ---- API tokens ----
        ['POST', '/api-tokens', () => ({token: model.issueApiToken()})],
        ['GET', '/api-tokens', () => ({tokens: [...model.apiTokens.values()]})],
        ['POST', '/api-tokens/expire', (p, q, body) => ({expired: model.expireApiTokens(body?.token)})],

        // ---- members and JWTs ----
        ['POST', '/members', (p, q, body) => {
            const member = model.addMember(body || {});
            for (const [chatRef, role] of Object.entries(body.roles || {})) {
                const chat = model.resolveChat(chatRef, member.platform);
                chat.memberRoles.set(member.memberId, role);
                const user = model.memberUser(chat, member.memberId);
                if (user) {
                    model.setRole(chat, user, role);
                    model.updateUsers(chat, [user]);
                }
            }
            const jwt = model.mintJwt(member.memberId, {ttlSeconds: body.ttlSeconds ?? 3600});
            return {memberId: member.memberId, name: member.name, platform: member.platform, jwt};
        }],
        ['GET', '/members', () => ({
            members: [...model.members.values()].map((m) => ({
                memberId: m.memberId, name: m.name, platform: m.platform, jwt: m.currentJwt,
            })),
        })],
        ['GET', '/members/:member/jwt', (p) => ({memberId: p.member, jwt: model.currentJwt(p.member)})],
        ['POST', '/jwt', (p, q, body) => {
            const options = {ttlSeconds: body.ttlSeconds ?? 3600, expired: Boolean(body.expired)};
            return {jwt: model.mintJwt(requireField(body, 'memberId'), options)};
        }],
        ['POST', '/jwt/expire', (p, q, body) => {
            if (!body || (body.jwt === undefined && body.memberId === undefined)) {
                throw errors.badRequest('"jwt" or "memberId" is required');
            }
            return model.expireJwt(body);
        }],
        ['POST', '/jwt/refresh', (p, q, body) => {
            const claims = model.jwt.decode(requireField(body, 'jwt'));
            if (!claims) throw errors.unauthorized('not a JWT of this emulator');
            return {memberId: claims.sub, jwt: model.currentJwt(claims.sub)};
        }],

        // ---- chatrooms ----
        ['POST', '/chatrooms', (p, q, body) => {
            const chat = model.createChat({...body, platform: body.platform || DEFAULT_PLATFORM});
            for (const [memberId, role] of Object.entries(body.roles || {})) chat.memberRoles.set(memberId, role);
            return chatSummary(model, chat);
        }],
        ['GET', '/chatrooms', () => ({chatrooms: [...model.chats.values()].map((c) => chatSummary(model, c))})],
        ['GET', '/chatrooms/:chat', (p, q) => {
            const chat = chatOf(p, q);
            return {
                ...chatSummary(model, chat),
                users: [...chat.users.values()].map((u) => ({...model.userJson(u), tokens: u.tokens.size})),
                memberRoles: Object.fromEntries(chat.memberRoles),
                metadata: [...chat.metadata.values()].map((e) => model.metaJson(e)),
                profile: model.profileJson(chat, true),
            };
        }],
        ['PATCH', '/chatrooms/:chat', (p, q, body) => updateChat(chatOf(p, q), body)],
        ['POST', '/chatrooms/:chat/settings', (p, q, body) => updateChat(chatOf(p, q), body)],
        ['DELETE', '/chatrooms/:chat', (p, q) => {
            const chat = chatOf(p, q);
            realtime.drop(chat, 'disconnect');
            model.deleteChat(chat);
            return {deleted: chat.id};
        }],
        ['PUT', '/chatrooms/:chat/roles', (p, q, body) => {
            const chat = chatOf(p, q);
            const memberId = requireField(body, 'memberId');
            const role = requireField(body, 'role');
            const user = model.memberUser(chat, memberId);
            if (user) {
                model.setRole(chat, user, role);
                model.updateUsers(chat, [user]);
            } else {
                chat.memberRoles.set(memberId, role);
            }
            return {memberId, role, user: user ? model.userJson(user) : null};
        }],

        // ---- users ----
        ['POST', '/chatrooms/:chat/users', (p, q, body) => {
            const chat = chatOf(p, q);
            const created = (requireField(body, 'users')).map((entry) => {
                const user = model.addUser(chat, entry);
                const token = entry.join === false ? null : model.issueUserToken(chat, user);
                return {user, token};
            });
            if (body.announce) {
                model.announce(chat, 'user_add', created.map(({user}) => model.userJson(user)));
                model.announceCounts(chat);
            }
            return {users: created.map(({user, token}) => userWithToken(model, chat, user, token))};
        }],
        ['GET', '/chatrooms/:chat/users', (p, q) => ({
            users: [...chatOf(p, q).users.values()].map((u) => model.userJson(u)),
        })],
        ['DELETE', '/chatrooms/:chat/users/:label', (p, q) => {
            const chat = chatOf(p, q);
            const user = model.userByLabel(chat, p.label);
            if (!user) throw errors.notFound(`no user ${p.label}`);
            model.removeUsers(chat, [user]);
            return {removed: user.label};
        }],

        // ---- messages, pins, metadata, counters ----
        ['POST', '/chatrooms/:chat/messages', (p, q, body) => {
            const chat = chatOf(p, q);
            const messages = requireField(body, 'messages').map((entry) => model.addMessage(chat, {
                msgType: entry.msgType || 'text',
                value: entry.value ?? entry.text,
                aggregated: entry.aggregated,
                creator: entry.creatorLabel !== undefined ? model.userByLabel(chat, entry.creatorLabel) : null,
                createdMs: entry.createdMs ?? (entry.createdDate ? parseServiceDate(entry.createdDate) : undefined),
                sourceType: entry.sourceType,
                announce: Boolean(body.announce),
            }));
            return {messages: messages.map((m) => model.messageJson(chat, m, true))};
        }],
        ['GET', '/chatrooms/:chat/messages', (p, q) => {
            const chat = chatOf(p, q);
            return {messages: chat.messages.map((m) => model.messageJson(chat, m, true))};
        }],
        ['POST', '/chatrooms/:chat/flush', (p, q) => {
            model.flushMessages(chatOf(p, q));
            return {flushed: true};
        }],
        ['POST', '/chatrooms/:chat/pin', (p, q, body) => {
            const chat = chatOf(p, q);
            const id = body?.messageId ?? null;
            const msg = id === null ? null : chat.messagesById.get(id);
            if (id !== null && !msg) throw errors.notFound(`no message ${id}`);
            model.setPinned(chat, msg);
            return {pinnedMessageId: chat.pinnedMessageId};
        }],
        ['POST', '/chatrooms/:chat/metadata', (p, q, body) => {
            const chat = chatOf(p, q);
            const entries = requireField(body, 'entries').map((entry) => model.setMetadata(chat, {
                key: entry.key, value: entry.value, scope: entry.scope, reserved: entry.reserved,
            }));
            const json = entries.map((e) => model.metaJson(e));
            if (body.broadcast) model.announce(chat, 'meta', json);
            return {meta: json};
        }],
        ['POST', '/chatrooms/:chat/aggregated', (p, q, body) => {
            const chat = chatOf(p, q);
            const items = requireField(body, 'items').map((item) => ({key: String(item.key), n: Number(item.n ?? 1)}));
            for (const {key, n} of items) chat.aggregated.set(key, (chat.aggregated.get(key) || 0) + n);
            if (body.announce !== false) model.announce(chat, 'agg_data', {chatId: chat.id, aggregated: items});
            return {aggregated: model.aggregatedJson(chat)};
        }],

        ['POST', '/chatrooms/:chat/stream', (p, q, body) => streams.start(chatOf(p, q), body)],
        ['GET', '/chatrooms/:chat/stream', (p, q) => streams.describe(chatOf(p, q))],
        ['DELETE', '/chatrooms/:chat/stream', (p, q) => streams.stop(chatOf(p, q))],

        // ---- archives ----
        ['POST', '/chatrooms/:chat/archives', (p, q, body) => {
            const chat = chatOf(p, q);
            return archiveSummary(model, chat, addArchive(chat, body || {}));
        }],
        ['GET', '/chatrooms/:chat/archives', (p, q) => {
            const chat = chatOf(p, q);
            return {archives: [...chat.archives.values()].map((a) => archiveSummary(model, chat, a))};
        }],
        ['DELETE', '/chatrooms/:chat/archives/:archive', (p, q) => ({deleted: chatOf(p, q).archives.delete(p.archive)})],

        // ---- realtime ----
        ['POST', '/chatrooms/:chat/emit', (p, q, body) => ({
            delivered: realtime.emit(chatOf(p, q), requireField(body, 'event'), eventArgs(body)),
        })],
        ['POST', '/chatrooms/:chat/flood', (p, q, body) => realtime.flood(chatOf(p, q),
            requireField(body, 'event'), eventArgs(body), Number(requireField(body, 'count')))],
        ['GET', '/chatrooms/:chat/sockets', (p, q) => ({
            sockets: realtime.sockets(chatOf(p, q)).map((s) => realtime.describe(s)),
        })],
        ['POST', '/chatrooms/:chat/sockets/drop', (p, q, body) => ({
            dropped: realtime.drop(chatOf(p, q), body?.mode || 'disconnect'),
        })],
        ['GET', '/sockets', () => ({sockets: realtime.sockets(null).map((s) => realtime.describe(s))})],
        ['POST', '/sockets/drop', (p, q, body) => ({dropped: realtime.drop(null, body?.mode || 'disconnect')})],
        ['POST', '/sockets/refuse', (p, q, body) => {
            realtime.refuse(requireField(body, 'mode'), body.count);
            return {refusal: realtime.refusal};
        }],
        ['POST', '/subscribed/hold', (p, q, body) => {
            const chat = body?.chat ? model.resolveChat(body.chat, body.platform || DEFAULT_PLATFORM) : null;
            realtime.hold(chat, body?.hold !== false);
            return {hold: body?.hold !== false, chat: chat ? chat.id : null};
        }],
        ['POST', '/subscribed/release', (p, q, body) => {
            const chat = body?.chat ? model.resolveChat(body.chat, body.platform || DEFAULT_PLATFORM) : null;
            return {released: realtime.release(chat)};
        }],
    ].map(([method, pattern, handler]) => ({method, ...compile(pattern), handler}));
}

function compile(pattern) {
    const names = [];
    const source = pattern.replace(/:([a-z]+)/g, (m, name) => {
        names.push(name);
        return '([^/]+)';
    });
    return {regex: new RegExp(`^/_control${source}/?$`), names};
}

// Answers a control request; the body is already parsed (null when empty).
function handleControl(routes, method, pathname, query, body) {
    let pathMatched = false;
    for (const route of routes) {
        const match = route.regex.exec(pathname);
        if (!match) continue;
        pathMatched = true;
        if (route.method !== method) continue;
        const params = Object.fromEntries(route.names.map((name, i) => [name, decodeURIComponent(match[i + 1])]));
        return route.handler(params, query, body || {});
    }
    if (pathMatched) throw new HttpError(405, 'MethodNotAllowed', `${method} not allowed here`);
    throw new HttpError(404, 'RouteNotFound', `no control route ${pathname}`);
}

module.exports = {makeRoutes, handleControl};
