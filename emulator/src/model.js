'use strict';
// The in-memory service: chatrooms keyed by platform and channel code, their users, messages,
// metadata, aggregated counters and archives (built by archive.js), the members with their
// JWTs, and the API tokens.
// Every change that the real service announces over the realtime channel goes through
// `announce`, which the realtime module forwards to the chatroom's subscribers.

const {newObjectId, randomToken, formatServiceDate, errors} = require('./util');

const ROLE_LEVELS = {
    MASTER: 6, GLOBAL_MANAGER: 5, LOCAL_MANAGER: 4, MODERATOR: 3, NORMAL: 2, BLOCKED: 1,
};
const USER_STATUSES = ['ACTIVE', 'DELETED', 'PREACTIVE'];
const MESSAGE_TYPES = ['text', 'raw', 'aggregate'];
const WRITE_MODES = ['ALL', 'LOGIN', 'ANCHOR'];
const PERSONAL_PREFIX = 'p#';
const DEFAULT_JWT_TTL_SECONDS = 3600;

function roleLevel(role) {
    return ROLE_LEVELS[role] || 0;
}

class Model {
    constructor({jwt, baseUrl}) {
        this.jwt = jwt;
        this.baseUrl = baseUrl;
        this.announceListener = () => {};
        this.reset();
    }

    reset() {
        this.vendors = new Set();
        this.chats = new Map();
        this.chatsByKey = new Map();
        this.members = new Map();
        this.apiTokens = new Map();
        this.userTokens = new Map();
        this.nextLabel = 1001;
    }

    // ---- announcements ----

    announce(chat, event, payload) {
        this.announceListener(chat, event, payload);
    }

    // ---- API tokens ----

    issueApiToken() {
        const token = randomToken(12);
        this.apiTokens.set(token, {token, issuedAt: Date.now(), expired: false});
        return token;
    }

    isApiTokenValid(token) {
        const entry = this.apiTokens.get(token);
        return Boolean(entry && !entry.expired);
    }

    expireApiTokens(token) {
        let count = 0;
        for (const entry of this.apiTokens.values()) {
            if ((token === undefined || entry.token === token) && !entry.expired) {
                entry.expired = true;
                count += 1;
            }
        }
        return count;
    }

    // ---- members and JWTs ----

    addMember({memberId, name, avatar, identities, platform}) {
        if (typeof memberId !== 'string' || memberId.length === 0) throw errors.badRequest('memberId required');
        const existing = this.members.get(memberId);
        const member = existing || {memberId, currentJwt: null};
        member.name = name ?? member.name ?? memberId;
        member.avatar = avatar ?? member.avatar ?? `https://avatars.example.invalid/${encodeURIComponent(memberId)}.png`;
        member.identities = identities ?? member.identities ?? {email: `${memberId}@example.invalid`};
        member.platform = platform ?? member.platform ?? 'demo-account';
        this.members.set(memberId, member);
        return member;
    }

    mintJwt(memberId, {ttlSeconds = DEFAULT_JWT_TTL_SECONDS, expired = false} = {}) {
        const member = this.members.get(memberId);
        if (!member) throw errors.notFound(`no member ${memberId}`);
        const now = Math.floor(Date.now() / 1000);
        const exp = expired ? now - 60 : now + Number(ttlSeconds);
        const token = this.jwt.sign({
            sub: memberId, memberId, name: member.name, platform: member.platform,
            iat: expired ? now - 120 : now, exp, jti: randomToken(6),
        });
        member.currentJwt = token;
        return token;
    }

    // The member's current JWT, minted afresh when the last one has expired or was revoked.
    currentJwt(memberId) {
        const member = this.members.get(memberId);
        if (!member) throw errors.notFound(`no member ${memberId}`);
        if (!member.currentJwt || this.jwt.verify(member.currentJwt).error) return this.mintJwt(memberId);
        return member.currentJwt;
    }

    // Expires the given JWT (or every JWT of the member) and mints the replacement.
    expireJwt({jwt, memberId}) {
        let id = memberId;
        if (jwt !== undefined) {
            const claims = this.jwt.decode(jwt);
            if (!claims) throw errors.badRequest('not a JWT of this emulator');
            id = claims.sub;
            this.jwt.revoke(jwt);
        }
        const member = this.members.get(id);
        if (!member) throw errors.notFound(`no member ${id}`);
        if (member.currentJwt) this.jwt.revoke(member.currentJwt);
        return {memberId: id, jwt: this.mintJwt(id)};
    }

    // The member behind a request's bearer token: null for none, an error for a bad one.
    memberFromBearer(bearer) {
        if (!bearer) return null;
        const {claims, error} = this.jwt.verify(bearer);
        if (error) throw errors.unauthorized(error);
        const member = this.members.get(claims.sub);
        if (!member) throw errors.unauthorized('unknown member');
        return member;
    }

    // ---- chatrooms ----

    chatKey(platform, channelCode) {
        return `${platform}\u0000${channelCode}`;
    }

    createChat({platform = 'demo-account', channelCode, personal = false, board = false,
        chatWriteMode = 'ALL', inputInterval = 0, stickers = [], aggregated = [], createdMs}) {
        if (typeof channelCode !== 'string' || channelCode.length === 0) throw errors.badRequest('channelCode required');
        if (!WRITE_MODES.includes(chatWriteMode)) throw errors.badRequest(`unknown chatWriteMode ${chatWriteMode}`);
        const key = this.chatKey(platform, channelCode);
        if (this.chatsByKey.has(key)) throw errors.duplicate(`chatroom ${channelCode} exists`);
        const chat = {
            id: newObjectId(),
            platform,
            channelCode,
            personal: personal || channelCode.startsWith(PERSONAL_PREFIX),
            board,
            chatWriteMode,
            inputInterval: Number(inputInterval),
            createdMs: createdMs ?? Date.now(),
            extraMemberCount: 0,
            extraGuestCount: 0,
            stickers,
            pinnedMessageId: null,
            aggregated: new Map(aggregated.map((item) => [item.key, Number(item.n)])),
            aggregation: {windowMs: 0, pending: new Map(), timer: null},
            users: new Map(),
            memberRoles: new Map(),
            messages: [],
            messagesById: new Map(),
            metadata: new Map(),
            archives: new Map(),
            lastTextMs: new Map(),
            holdSubscribed: false,
        };
        this.vendors.add(platform);
        this.chats.set(chat.id, chat);
        this.chatsByKey.set(key, chat);
        return chat;
    }

    deleteChat(chat) {
        this.chats.delete(chat.id);
        this.chatsByKey.delete(this.chatKey(chat.platform, chat.channelCode));
        for (const user of chat.users.values()) this.dropUserTokens(user);
        clearTimeout(chat.aggregation.timer);
    }

    findChat(platform, channelCode) {
        return this.chatsByKey.get(this.chatKey(platform, channelCode)) || null;
    }

    // Control routes name a chatroom by id or by channel code (under a platform).
    resolveChat(ref, platform = 'demo-account') {
        const chat = this.chats.get(ref) || this.findChat(platform, ref);
        if (!chat) throw errors.notFound(`no chatroom ${ref}`);
        return chat;
    }

    chatById(chatId) {
        const chat = this.chats.get(chatId);
        if (!chat) throw errors.notFound(`no chatroom with id ${chatId}`);
        return chat;
    }

    archiveBaseUrl(chat) {
        return `${this.baseUrl()}/archive/${chat.id}/`;
    }

    counts(chat) {
        let members = 0;
        let guests = 0;
        for (const user of chat.users.values()) {
            if (user.status !== 'ACTIVE') continue;
            if (user.userId) members += 1;
            else guests += 1;
        }
        return {memberCount: members + chat.extraMemberCount, guestCount: guests + chat.extraGuestCount};
    }

    // Sets the counts that the chatroom reports, whatever its real users.
    setCounts(chat, {memberCount, guestCount}) {
        const real = this.counts({...chat, extraMemberCount: 0, extraGuestCount: 0});
        if (memberCount !== undefined) chat.extraMemberCount = Number(memberCount) - real.memberCount;
        if (guestCount !== undefined) chat.extraGuestCount = Number(guestCount) - real.guestCount;
        this.announceCounts(chat);
    }

    announceCounts(chat) {
        this.announce(chat, 'user_count', {chatId: chat.id, ...this.counts(chat)});
    }

    profileJson(chat, withStickers) {
        const pinned = chat.pinnedMessageId ? chat.messagesById.get(chat.pinnedMessageId) : null;
        const profile = {
            id: chat.id,
            channelCode: chat.channelCode,
            platform: chat.platform,
            isPersonalChat: chat.personal,
            chatWriteMode: chat.chatWriteMode,
            inputInterval: chat.inputInterval,
            createdDate: formatServiceDate(chat.createdMs),
            ...this.counts(chat),
            pinnedMsg: pinned ? this.messageJson(chat, pinned, true) : {},
            aggregated: this.aggregatedJson(chat),
            arcMsgURL: this.archiveBaseUrl(chat),
        };
        if (withStickers) profile.sticker = chat.stickers;
        return profile;
    }

    aggregatedJson(chat) {
        return [...chat.aggregated].map(([key, n]) => ({key, n}));
    }

    setWriteMode(chat, mode) {
        if (!WRITE_MODES.includes(mode)) throw errors.badRequest(`unknown chatWriteMode ${mode}`);
        chat.chatWriteMode = mode;
        this.announce(chat, 'chat_write_mode', {chatId: chat.id, chatWriteMode: mode});
    }

    setInputInterval(chat, interval) {
        if (typeof interval !== 'number' || !(interval >= 0)) throw errors.badRequest('inputInterval must be a number >= 0');
        chat.inputInterval = interval;
        this.announce(chat, 'message_input_interval', {chatId: chat.id, inputInterval: interval});
    }

    // ---- users ----

    userJson(user) {
        const json = {
            label: user.label,
            role: user.role,
            name: user.name,
            avatar: user.avatar,
            identities: user.identities,
            status: user.status,
            updatedDate: formatServiceDate(user.updatedMs),
        };
        if (user.userId) json.userId = user.userId;
        return json;
    }

    roleForMember(chat, memberId) {
        return chat.memberRoles.get(memberId) || 'NORMAL';
    }

    memberUser(chat, memberId) {
        for (const user of chat.users.values()) if (user.userId === memberId) return user;
        return null;
    }

    userByLabel(chat, label) {
        const number = Number(label);
        return Number.isSafeInteger(number) ? chat.users.get(number) || null : null;
    }

    // Adds a user record without joining it over REST (seeding) or as part of a join.
    addUser(chat, {memberId, name, role, status = 'ACTIVE', avatar, identities}) {
        if (!USER_STATUSES.includes(status)) throw errors.badRequest(`unknown status ${status}`);
        if (role !== undefined && !(role in ROLE_LEVELS)) throw errors.badRequest(`unknown role ${role}`);
        let user = memberId ? this.memberUser(chat, memberId) : null;
        if (!user) {
            const member = memberId ? this.members.get(memberId) || this.addMember({memberId, name}) : null;
            user = {
                label: this.nextLabel++,
                userId: memberId || undefined,
                name: name ?? member?.name ?? 'Guest',
                avatar: avatar ?? member?.avatar ?? '',
                identities: identities ?? member?.identities ?? {},
                role: role ?? (memberId ? this.roleForMember(chat, memberId) : 'NORMAL'),
                prevRole: null,
                status,
                updatedMs: Date.now(),
                tokens: new Set(),
            };
            chat.users.set(user.label, user);
        } else {
            if (role !== undefined) user.role = role;
            if (name !== undefined) user.name = name;
            user.status = status;
            user.updatedMs = Date.now();
        }
        if (memberId && role !== undefined) chat.memberRoles.set(memberId, role);
        return user;
    }

    issueUserToken(chat, user) {
        const token = randomToken(16);
        user.tokens.add(token);
        this.userTokens.set(token, {chatId: chat.id, label: user.label});
        return token;
    }

    dropUserTokens(user) {
        for (const token of user.tokens) this.userTokens.delete(token);
        user.tokens.clear();
    }

    // The active user that a user token names in this chat, or a 403.
    userForToken(chat, token) {
        const entry = typeof token === 'string' ? this.userTokens.get(token) : null;
        const user = entry && entry.chatId === chat.id ? chat.users.get(entry.label) : null;
        if (!user || user.status !== 'ACTIVE') throw errors.permission('user token not valid in this chatroom');
        return user;
    }

    userForTokenAnyChat(token) {
        const entry = typeof token === 'string' ? this.userTokens.get(token) : null;
        if (!entry) return null;
        const chat = this.chats.get(entry.chatId);
        const user = chat?.users.get(entry.label);
        return user && user.status === 'ACTIVE' ? {chat, user} : null;
    }

    // Joins a member or a guest; announces the arrival and the new counts.
    join(chat, {member, guestName}) {
        const user = member
            ? this.addUser(chat, {memberId: member.memberId, name: member.name})
            : this.addUser(chat, {name: guestName || 'Guest'});
        const wasActive = user.status === 'ACTIVE' && user.tokens.size > 0;
        user.status = 'ACTIVE';
        user.updatedMs = Date.now();
        const token = this.issueUserToken(chat, user);
        if (!wasActive) {
            this.announce(chat, 'user_add', [this.userJson(user)]);
            this.announceCounts(chat);
        }
        return {user, token};
    }

    // Users leave (or are removed): their tokens die and the room hears of it.
    removeUsers(chat, users) {
        for (const user of users) {
            user.status = 'DELETED';
            user.updatedMs = Date.now();
            this.dropUserTokens(user);
        }
        if (users.length === 0) return;
        this.announce(chat, 'user_remove', users.map((user) => this.userJson(user)));
        this.announceCounts(chat);
    }

    updateUsers(chat, users) {
        if (users.length === 0) return;
        for (const user of users) user.updatedMs = Date.now();
        this.announce(chat, 'user_update', users.map((user) => this.userJson(user)));
    }

    setRole(chat, user, role) {
        if (!(role in ROLE_LEVELS)) throw errors.badRequest(`unknown role ${role}`);
        if (role === 'BLOCKED' && user.role !== 'BLOCKED') user.prevRole = user.role;
        user.role = role;
        if (user.userId) chat.memberRoles.set(user.userId, role);
    }

    // ---- messages ----

    addMessage(chat, {msgType = 'text', value, creator, createdMs, sourceType = 'REST', aggregated,
        announce = true}) {
        if (!MESSAGE_TYPES.includes(msgType)) throw errors.badRequest(`unknown msgType ${msgType}`);
        const msg = {
            id: newObjectId(),
            msgType,
            value,
            aggregated,
            creatorLabel: creator ? creator.label : null,
            createdMs: createdMs ?? Date.now(),
            sourceType,
            status: 'ACTIVE',
        };
        this.insertMessage(chat, msg);
        if (announce) this.announceMessage(chat, msg);
        return msg;
    }

    insertMessage(chat, msg) {
        const list = chat.messages;
        let i = list.length;
        while (i > 0 && list[i - 1].createdMs > msg.createdMs) i -= 1;
        list.splice(i, 0, msg);
        chat.messagesById.set(msg.id, msg);
    }

    announceMessage(chat, msg) {
        if (msg.msgType === 'text') this.announce(chat, 'message', this.messageJson(chat, msg, true));
        else if (msg.msgType === 'raw') this.announce(chat, 'raw_data', this.messageJson(chat, msg, true));
        else this.announce(chat, 'agg_data', {chatId: chat.id, aggregated: msg.aggregated});
    }

    messageJson(chat, msg, populateCreator) {
        const json = {
            id: msg.id,
            chatId: chat.id,
            msgType: msg.msgType,
            category: msg.msgType,
            createdDate: formatServiceDate(msg.createdMs),
            sourceType: msg.sourceType,
            status: msg.status,
            parentName: chat.channelCode,
        };
        // Keys without a value are left out rather than sent as null, as the service does.
        if (msg.creatorLabel !== null) json.creatorLabel = msg.creatorLabel;
        if (msg.msgType === 'text') {
            json.text = msg.value;
            json.value = msg.value;
        } else if (msg.msgType === 'raw') {
            json.value = msg.value;
        } else {
            json.aggregated = msg.aggregated;
        }
        if (populateCreator && msg.creatorLabel !== null) {
            const creator = chat.users.get(msg.creatorLabel);
            if (creator) json.creator = this.userJson(creator);
        }
        return json;
    }

    // Counts an aggregated key; with an aggregation window the increments are batched.
    addAggregate(chat, key, creator) {
        chat.aggregated.set(key, (chat.aggregated.get(key) || 0) + 1);
        const aggregation = chat.aggregation;
        if (aggregation.windowMs <= 0) {
            return this.addMessage(chat, {msgType: 'aggregate', aggregated: [{key, n: 1}], creator});
        }
        aggregation.pending.set(key, (aggregation.pending.get(key) || 0) + 1);
        if (!aggregation.timer) {
            aggregation.timer = setTimeout(() => this.flushAggregation(chat), aggregation.windowMs);
        }
        return null;
    }

    flushAggregation(chat) {
        const aggregation = chat.aggregation;
        clearTimeout(aggregation.timer);
        aggregation.timer = null;
        if (aggregation.pending.size === 0) return;
        const aggregated = [...aggregation.pending].map(([key, n]) => ({key, n}));
        aggregation.pending.clear();
        this.addMessage(chat, {msgType: 'aggregate', aggregated});
    }

    listMessages(chat, {msgType = 'text', count = 10, offset = 0, order = 'desc', oldestDate, latestDate}) {
        let list = chat.messages.filter((msg) => msg.status === 'ACTIVE' && msg.msgType === msgType &&
            (oldestDate === undefined || msg.createdMs >= oldestDate) &&
            (latestDate === undefined || msg.createdMs <= latestDate));
        if (order === 'desc') list = list.slice().reverse();
        return list.slice(offset, offset + count);
    }

    removeMessage(chat, msg) {
        msg.status = 'DELETED';
        this.announce(chat, 'message_remove', msg.id);
        if (chat.pinnedMessageId === msg.id) this.setPinned(chat, null);
    }

    flushMessages(chat) {
        for (const msg of chat.messages) msg.status = 'DELETED';
        if (chat.pinnedMessageId) chat.pinnedMessageId = null;
        this.announce(chat, 'message_flush', {chatId: chat.id});
    }

    setPinned(chat, msg) {
        chat.pinnedMessageId = msg ? msg.id : null;
        this.announce(chat, 'pinned_message', {chatId: chat.id, pinnedMsg: msg ? this.messageJson(chat, msg, true) : {}});
    }

    // ---- metadata ----

    metaJson(entry) {
        return {
            key: entry.key, value: entry.value, scope: entry.scope, reserved: entry.reserved,
            updatedDate: formatServiceDate(entry.updatedMs),
        };
    }

    setMetadata(chat, {key, value, scope = 'chat', reserved = false, broadcast = false}) {
        const entry = {key, value, scope, reserved: Boolean(reserved), updatedMs: Date.now()};
        chat.metadata.set(key, entry);
        if (broadcast) this.announce(chat, 'meta', [this.metaJson(entry)]);
        return entry;
    }
}

module.exports = {Model, ROLE_LEVELS, USER_STATUSES, MESSAGE_TYPES, WRITE_MODES, PERSONAL_PREFIX, roleLevel};
