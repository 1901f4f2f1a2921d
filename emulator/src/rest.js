'use strict';
// The messaging REST endpoints. Every path ends in an API token; the order of checks is the
// service's: API token (409), bearer JWT (401), parameters (400), entities (404), user token and
// role (403), then the action.

const {errors} = require('./util');
const {roleLevel, ROLE_LEVELS, MESSAGE_TYPES, PERSONAL_PREFIX} = require('./model');

const MODERATOR_LEVEL = ROLE_LEVELS.MODERATOR;
const MANAGER_LEVEL = ROLE_LEVELS.LOCAL_MANAGER;
const MAX_PAGE = 100;
const METADATA_KEY = /^[A-Za-z0-9][A-Za-z0-9_@#-]{0,29}$/;
const METADATA_LIMIT = 4096;
const METADATA_BROADCAST_LIMIT = 1024;

// ---- parameter readers: a missing or mistyped parameter is the caller's 400 ----

function has(params, name) {
    return params !== null && typeof params === 'object' && Object.prototype.hasOwnProperty.call(params, name);
}

function requireString(params, name) {
    const value = has(params, name) ? params[name] : undefined;
    if (typeof value === 'number' && Number.isFinite(value)) return String(value);
    if (typeof value !== 'string' || value.length === 0) throw errors.badRequest(`${name} is required`);
    return value;
}

function requireArray(params, name) {
    const value = has(params, name) ? params[name] : undefined;
    if (!Array.isArray(value)) throw errors.badRequest(`${name} must be an array`);
    return value;
}

function optionalBoolean(params, name, fallback) {
    if (!has(params, name)) return fallback;
    const value = params[name];
    if (typeof value === 'boolean') return value;
    if (value === 'true' || value === 'false') return value === 'true';
    throw errors.badRequest(`${name} must be a boolean`);
}

function optionalInteger(params, name, fallback, min = 0) {
    if (!has(params, name)) return fallback;
    const value = Number(params[name]);
    if (!Number.isInteger(value)) throw errors.badRequest(`${name} must be an integer`);
    if (value < min) throw errors.badRequest(`${name} must be at least ${min}`);
    return value;
}

function optionalNumber(params, name) {
    if (!has(params, name)) return undefined;
    const value = Number(params[name]);
    if (!Number.isFinite(value)) throw errors.badRequest(`${name} must be a number`);
    return value;
}

function requireLabels(params, name) {
    return requireArray(params, name).map((label) => {
        const number = Number(label);
        if ((typeof label !== 'string' && typeof label !== 'number') || !Number.isSafeInteger(number)) {
            throw errors.badRequest(`${name} must hold labels`);
        }
        return number;
    });
}

// ---- shared steps ----

function chatAndUser(model, params) {
    const chatId = requireString(params, 'chatId');
    const userToken = requireString(params, 'userToken');
    const chat = model.chatById(chatId);
    return {chat, user: model.userForToken(chat, userToken)};
}

function usersByLabels(model, chat, labels) {
    return labels.map((label) => {
        const user = model.userByLabel(chat, label);
        if (!user) throw errors.notFound(`no user with label ${label}`);
        return user;
    });
}

function requireLevel(user, level, what) {
    if (roleLevel(user.role) < level) throw errors.permission(`${user.role} may not ${what}`);
}

function requireOutranks(actor, target, what) {
    if (roleLevel(target.role) >= roleLevel(actor.role)) {
        throw errors.permission(`${actor.role} may not ${what} a ${target.role}`);
    }
}

function requireMember(member) {
    if (!member) throw errors.unauthorized('a member JWT is required');
    return member;
}

// ---- endpoints ----

function getChatProfile({model, params}) {
    const channelCode = requireString(params, 'channelCode');
    const platform = requireString(params, 'platform');
    const chat = model.findChat(platform, channelCode);
    if (!chat) throw errors.notFound(`no chatroom ${channelCode} under ${platform}`);
    return model.profileJson(chat, params.return_sticker === 'true');
}

function createChat({model, params, member}) {
    requireMember(member);
    const platform = requireString(params, 'platform');
    const code = requireString(params, 'channel_code');
    if (typeof params.is_personal_chat !== 'boolean') throw errors.badRequest('is_personal_chat must be a boolean');
    const personal = params.is_personal_chat;
    const channelCode = personal && !code.startsWith(PERSONAL_PREFIX) ? PERSONAL_PREFIX + code : code;
    const chat = model.createChat({platform, channelCode, personal});
    chat.memberRoles.set(member.memberId, 'MASTER');
    const {user, token} = model.join(chat, {member});
    return {chatId: chat.id, userToken: token, label: user.label, role: user.role, channelCode};
}

function createMessageBoard({model, params, member}) {
    const channelCode = requireString(params, 'channelCode');
    const platform = member ? member.platform : 'demo-account';
    const chat = model.findChat(platform, channelCode) || model.createChat({platform, channelCode, board: true});
    return {chatId: chat.id};
}

function addUsersToChat({model, params, member, socketInfo}) {
    const chat = model.chatById(requireString(params, 'chatId'));
    let joined;
    if (has(params, 'targetUsers')) {
        const target = requireArray(params, 'targetUsers')[0];
        if (target === null || typeof target !== 'object' || Array.isArray(target)) {
            throw errors.badRequest('targetUsers must hold a user object');
        }
        if (has(target, 'name') && (typeof target.name !== 'string' || target.name.length === 0)) {
            throw errors.badRequest('name must be a non-empty string');
        }
        joined = model.join(chat, {guestName: target.name});
    } else {
        joined = model.join(chat, {member: requireMember(member)});
    }
    const {user, token} = joined;
    const meta = {userToken: token, label: user.label, role: user.role, name: user.name, status: user.status};
    if (user.userId) meta.userId = user.userId;
    const query = new URLSearchParams({chatId: chat.id, userToken: token, platform: chat.platform});
    return {
        userMetas: [meta],
        socket: {host: socketInfo.host, path: socketInfo.path, query: query.toString()},
    };
}

function getUsersByChat({model, params}) {
    const {chat} = chatAndUser(model, params);
    const roles = requireArray(params, 'roles');
    const statuses = requireArray(params, 'statuses');
    const users = [...chat.users.values()]
        .filter((user) => roles.includes(user.role) && statuses.includes(user.status))
        .map((user) => model.userJson(user));
    return {users};
}

function getUsersByLabels({model, params}) {
    const {chat} = chatAndUser(model, params);
    const labels = requireLabels(params, 'targetUserLabels');
    const users = labels.map((label) => model.userByLabel(chat, label)).filter(Boolean)
        .map((user) => model.userJson(user));
    return {users};
}

function removeUsersFromChat({model, params}) {
    const {chat, user: actor} = chatAndUser(model, params);
    const targets = usersByLabels(model, chat, requireLabels(params, 'targetUserLabels'));
    for (const target of targets) {
        if (target === actor) continue;
        requireLevel(actor, MODERATOR_LEVEL, 'remove other users');
        requireOutranks(actor, target, 'remove');
    }
    model.removeUsers(chat, targets.filter((target) => target.status === 'ACTIVE'));
    return {};
}

// One entry of "targetUsers": found by label, or by member id (optionally under a platform).
function resolveUpdateTarget(model, chat, entry) {
    if (entry === null || typeof entry !== 'object' || Array.isArray(entry)) {
        throw errors.badRequest('targetUsers must hold user objects');
    }
    if (has(entry, 'label')) {
        const user = model.userByLabel(chat, entry.label);
        if (!user) throw errors.notFound(`no user with label ${entry.label}`);
        return {user};
    }
    if (has(entry, 'memberId')) {
        const memberId = requireString(entry, 'memberId');
        if (has(entry, 'platform') && entry.platform !== chat.platform) {
            throw errors.notFound(`no member ${memberId} under ${entry.platform}`);
        }
        const user = model.memberUser(chat, memberId);
        if (!user && !model.members.has(memberId)) throw errors.notFound(`no member ${memberId}`);
        return {user, memberId};
    }
    throw errors.badRequest('a target user needs "label" or "memberId"');
}

function checkRoleChange(actor, target, role) {
    if (typeof role !== 'string' || !(role in ROLE_LEVELS)) throw errors.badRequest(`unknown role ${role}`);
    requireLevel(actor, MANAGER_LEVEL, 'change roles');
    if (roleLevel(role) >= roleLevel(actor.role)) throw errors.permission(`${actor.role} may not grant ${role}`);
    if (target) requireOutranks(actor, target, 'change the role of');
}

function checkRename(actor, target, name) {
    if (typeof name !== 'string' || name.length === 0) throw errors.badRequest('name must be a non-empty string');
    if (!target) throw errors.notFound('no such user in this chatroom');
    if (target.userId) throw errors.permission("a member's name comes from the account");
    if (target !== actor) requireLevel(actor, MODERATOR_LEVEL, "rename other users");
}

function updateUsersInChat({model, params}) {
    const {chat, user: actor} = chatAndUser(model, params);
    const entries = requireArray(params, 'targetUsers');
    if (entries.length === 0) throw errors.badRequest('targetUsers is empty');
    const changes = entries.map((entry) => {
        const target = resolveUpdateTarget(model, chat, entry);
        if (!has(entry, 'role') && !has(entry, 'name')) throw errors.badRequest('nothing to update');
        if (has(entry, 'role')) checkRoleChange(actor, target.user, entry.role);
        if (has(entry, 'name')) checkRename(actor, target.user, entry.name);
        return {...target, entry};
    });
    const changed = [];
    for (const {user, memberId, entry} of changes) {
        if (has(entry, 'role')) {
            if (user) model.setRole(chat, user, entry.role);
            else chat.memberRoles.set(memberId, entry.role);
        }
        if (has(entry, 'name') && user) user.name = entry.name;
        if (user && !changed.includes(user)) changed.push(user);
    }
    model.updateUsers(chat, changed);
    return {};
}

function blockUsersInChat({model, params}) {
    const {chat, user: actor} = chatAndUser(model, params);
    requireLevel(actor, MODERATOR_LEVEL, 'block users');
    const targets = usersByLabels(model, chat, requireLabels(params, 'targetUserLabels'));
    for (const target of targets) requireOutranks(actor, target, 'block');
    for (const target of targets) model.setRole(chat, target, 'BLOCKED');
    model.updateUsers(chat, targets);
    return {};
}

function reviveUsersInChat({model, params}) {
    const {chat, user: actor} = chatAndUser(model, params);
    requireLevel(actor, MODERATOR_LEVEL, 'revive users');
    const targets = usersByLabels(model, chat, requireLabels(params, 'targetUserLabels'));
    const revived = targets.filter((target) => target.role === 'BLOCKED');
    for (const target of revived) {
        model.setRole(chat, target, target.prevRole || 'NORMAL');
        target.prevRole = null;
    }
    model.updateUsers(chat, revived);
    return {};
}

function getMessagesByChat({model, params}) {
    const {chat} = chatAndUser(model, params);
    const msgType = has(params, 'msgType') ? params.msgType : 'text';
    if (!MESSAGE_TYPES.includes(msgType)) throw errors.badRequest(`unknown msgType ${msgType}`);
    const order = has(params, 'order') ? params.order : 'desc';
    if (order !== 'asc' && order !== 'desc') throw errors.badRequest('order must be "asc" or "desc"');
    const query = {
        msgType,
        order,
        count: Math.min(optionalInteger(params, 'count', 10), MAX_PAGE),
        offset: optionalInteger(params, 'offset', 0),
        oldestDate: optionalNumber(params, 'oldestDate'),
        latestDate: optionalNumber(params, 'latestDate'),
    };
    const populate = params.populateCreator === 'true' || params.populateCreator === true;
    return {messages: model.listMessages(chat, query).map((msg) => model.messageJson(chat, msg, populate))};
}

function checkMayWrite(model, chat, user) {
    if (user.role === 'BLOCKED') throw errors.permission('blocked users may not send messages');
    if (chat.chatWriteMode === 'LOGIN' && !user.userId) throw errors.permission('only members may write here');
    if (chat.chatWriteMode === 'ANCHOR' && roleLevel(user.role) < MODERATOR_LEVEL) {
        throw errors.permission('only anchors may write here');
    }
    const now = Date.now();
    const last = chat.lastTextMs.get(user.label);
    if (chat.inputInterval > 0 && roleLevel(user.role) < MODERATOR_LEVEL && last !== undefined &&
        now - last < chat.inputInterval * 1000) {
        throw errors.tooMany(`wait ${chat.inputInterval} s between messages`);
    }
    chat.lastTextMs.set(user.label, now);
}

function addUserMessage({model, params}) {
    const {chat, user} = chatAndUser(model, params);
    const msgType = requireString(params, 'msgType');
    if (!MESSAGE_TYPES.includes(msgType)) throw errors.badRequest(`unknown msgType ${msgType}`);
    const sourceType = typeof params.sourceType === 'string' ? params.sourceType : 'REST';
    if (msgType === 'text') {
        const text = requireString(params, 'text');
        checkMayWrite(model, chat, user);
        return {messageId: model.addMessage(chat, {msgType, value: text, creator: user, sourceType}).id};
    }
    if (!has(params, 'value')) throw errors.badRequest('value is required');
    if (user.role === 'BLOCKED') throw errors.permission('blocked users may not send data');
    const value = params.value;
    if (msgType === 'aggregate') {
        if (typeof value !== 'string' || value.length === 0) throw errors.badRequest('value must be a key');
        const msg = model.addAggregate(chat, value, user);
        return {messageId: msg ? msg.id : 'pending-aggregation'};
    }
    if (value === null || typeof value !== 'object') throw errors.badRequest('raw value must be a JSON object or array');
    return {messageId: model.addMessage(chat, {msgType, value, creator: user, sourceType}).id};
}

function activeMessage(chat, messageId) {
    const msg = chat.messagesById.get(messageId);
    if (!msg || msg.status !== 'ACTIVE') throw errors.notFound(`no message ${messageId}`);
    return msg;
}

function removeMessage({model, params}) {
    const messageId = requireString(params, 'messageId');
    const {chat, user} = chatAndUser(model, params);
    const msg = activeMessage(chat, messageId);
    if (msg.creatorLabel !== user.label) requireLevel(user, MODERATOR_LEVEL, 'remove messages of others');
    model.removeMessage(chat, msg);
    return {};
}

function pinMessage({model, params}) {
    const messageId = requireString(params, 'messageId');
    const {chat, user} = chatAndUser(model, params);
    requireLevel(user, MODERATOR_LEVEL, 'pin messages');
    const msg = activeMessage(chat, messageId);
    model.setPinned(chat, msg);
    return {pinnedMsg: model.messageJson(chat, msg, true)};
}

function unpinMessage({model, params}) {
    const {chat, user} = chatAndUser(model, params);
    requireLevel(user, MODERATOR_LEVEL, 'unpin messages');
    model.setPinned(chat, null);
    return {};
}

function setMetadata({model, params}) {
    const {chat, user} = chatAndUser(model, params);
    const key = requireString(params, 'key');
    if (!METADATA_KEY.test(key)) throw errors.badRequest('illegal metadata key');
    if (!has(params, 'value')) throw errors.badRequest('value is required');
    const broadcast = optionalBoolean(params, 'broadcast', false);
    requireLevel(user, MODERATOR_LEVEL, 'set metadata');
    const existing = chat.metadata.get(key);
    if (existing && (existing.reserved || existing.scope !== 'chat')) {
        throw errors.permission(`metadata ${key} is reserved`);
    }
    const size = JSON.stringify(params.value).length;
    if (size > (broadcast ? METADATA_BROADCAST_LIMIT : METADATA_LIMIT)) throw errors.badRequest('metadata value too long');
    model.setMetadata(chat, {key, value: params.value, broadcast});
    return {};
}

function getMetadata({model, params}) {
    const {chat} = chatAndUser(model, params);
    const keys = has(params, 'keys') ? requireArray(params, 'keys') : null;
    const entries = keys ? keys.map((key) => chat.metadata.get(key)).filter(Boolean) : [...chat.metadata.values()];
    return {meta: entries.map((entry) => model.metaJson(entry))};
}

// Method and path (without the API token) to handler.
const ROUTES = new Map([
    ['GET /get-chat-profile-by-channel/', getChatProfile],
    ['POST /v2/chat/', createChat],
    ['POST /create-message-board/', createMessageBoard],
    ['POST /add-users-to-chat/', addUsersToChat],
    ['GET /get-users-by-chat/', getUsersByChat],
    ['GET /get-users-by-labels/', getUsersByLabels],
    ['DELETE /remove-users-from-chat/', removeUsersFromChat],
    ['PUT /update-users-in-chat/', updateUsersInChat],
    ['PUT /block-users-in-chat/', blockUsersInChat],
    ['PUT /revive-users-in-chat/', reviveUsersInChat],
    ['GET /get-messages-by-chat/', getMessagesByChat],
    ['POST /add-user-message-to-chat/', addUserMessage],
    ['DELETE /remove-message-from-chat/', removeMessage],
    ['POST /pinned-msg/', pinMessage],
    ['DELETE /pinned-msg/', unpinMessage],
    ['POST /chat-meta/', setMetadata],
    ['GET /chat-meta/', getMetadata],
]);
const ROUTE_PATHS = new Set([...ROUTES.keys()].map((key) => key.split(' ')[1]));

// {handler, token} for a REST path, {status} for a known path with the wrong method, or null.
function matchRoute(method, pathname) {
    const slash = pathname.lastIndexOf('/');
    const base = pathname.slice(0, slash + 1);
    const token = pathname.slice(slash + 1);
    if (!ROUTE_PATHS.has(base)) return null;
    const handler = ROUTES.get(`${method} ${base}`);
    if (!handler) return {status: 405};
    return {handler, token};
}

function bearerToken(header) {
    if (header === undefined) return null;
    const match = /^Bearer(?: (.*))?$/.exec(header);
    if (!match) throw errors.unauthorized('Authorization must be "Bearer <JWT>"');
    return match[1] ? match[1].trim() || null : null;
}

module.exports = {matchRoute, bearerToken, ROUTES};
