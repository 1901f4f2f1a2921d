'use strict';
// The archive service: GET "<arcMsgURL><archiveId>/meta" and "<arcMsgURL><archiveId>/<fileId>",
// read without credentials. A chatroom's "arcMsgURL" is "<base>/archive/<chatId>/". Archives
// live in their chatroom (`chat.archives`); large generated ones are described, not stored.

const {newObjectId, formatServiceDate, parseServiceDate, errors} = require('./util');

const ARCHIVE_PATH = /^\/archive\/([^/]+)\/([^/]+)\/([^/]+)$/;
const ARCHIVE_ID = /^[A-Za-z0-9_-]{10,32}$/;

function fileId(index) {
    return `file-${String(index + 1).padStart(4, '0')}`;
}

function archivedMessageJson(chat, message) {
    const createdMs = message.createdMs ?? (message.createdDate ? parseServiceDate(message.createdDate) : Date.now());
    const value = message.value ?? message.text ?? '';
    const json = {
        id: message.id || newObjectId(),
        chatId: chat.id,
        msgType: message.msgType || 'text',
        category: message.msgType || 'text',
        createdDate: formatServiceDate(createdMs),
        sourceType: message.sourceType || 'REST',
        status: 'ACTIVE',
        parentName: chat.channelCode,
        value,
    };
    if (typeof value === 'string') json.text = value;
    if (message.creatorLabel !== undefined && message.creatorLabel !== null) json.creatorLabel = message.creatorLabel;
    if (message.creator) json.creator = message.creator;
    return json;
}

function fileFromRequest(chat, file, index) {
    const messages = (file.messages || []).map((m) => archivedMessageJson(chat, m));
    const times = messages.map((m) => parseServiceDate(m.createdDate));
    return {
        id: file.id || fileId(index),
        start: file.start ?? (times.length ? Math.min(...times) : 0),
        end: file.end ?? (times.length ? Math.max(...times) : 0),
        len: file.len ?? messages.length,
        messages,
    };
}

// Evenly spaced messages, files one after another with a gap between them.
function generateFiles(plan) {
    const fileCount = Number(plan.files ?? 3);
    const perFile = Number(plan.messagesPerFile ?? 10);
    const stepMs = Number(plan.stepMs ?? 1000);
    const gapMs = Number(plan.gapMs ?? 60000);
    let start = Number(plan.startMs ?? Date.UTC(2023, 5, 1));
    const files = [];
    for (let i = 0; i < fileCount; i += 1) {
        const end = start + (perFile - 1) * stepMs;
        files.push({
            id: fileId(i), start, end, len: perFile,
            generated: {index: i, startMs: start, stepMs, perFile, prefix: plan.textPrefix ?? 'archived message'},
        });
        start = end + gapMs;
    }
    return files;
}

// files: [{id?, messages: [...], start?, end?, len?}] or generate: {...}; see README.
function addArchive(chat, {archiveId, msgType = 'text', hasMore = false, files, generate}) {
    if (typeof archiveId !== 'string' || !ARCHIVE_ID.test(archiveId)) {
        throw errors.badRequest('archiveId must be 10 to 32 letters, digits, "_" or "-"');
    }
    const built = generate ? generateFiles(generate) : (files || []).map((file, i) => fileFromRequest(chat, file, i));
    const archive = {archiveId, msgType, hasMore: Boolean(hasMore), files: built};
    chat.archives.set(archiveId, archive);
    return archive;
}

function fileMessages(chat, file) {
    if (!file.generated) return file.messages;
    const g = file.generated;
    const messages = [];
    for (let j = 0; j < g.perFile; j += 1) {
        messages.push(archivedMessageJson(chat, {
            id: `${file.id}-${String(j + 1).padStart(6, '0')}`,
            value: `${g.prefix} ${g.index + 1}.${j + 1}`,
            createdMs: g.startMs + j * g.stepMs,
        }));
    }
    return messages;
}

function metaJson(chat, archive) {
    const files = archive.files;
    const meta = {
        archiveId: archive.archiveId,
        msgType: archive.msgType,
        platform: chat.platform,
        chatroomName: chat.channelCode,
        files: files.map((f) => ({id: f.id, start: f.start, end: f.end, len: f.len})),
        hasMore: archive.hasMore,
    };
    if (files.length) {
        meta.oldestDate = files[0].start;
        meta.latestDate = files[files.length - 1].end;
    }
    return meta;
}

function isArchivePath(pathname) {
    return pathname.startsWith('/archive/');
}

// Clients that join the base URL and the relative path by hand may double a slash.
function normalise(pathname) {
    return pathname.replace(/\/{2,}/g, '/');
}

function handleArchive(model, method, pathname) {
    if (method !== 'GET') throw errors.badRequest('the archive service only answers GET');
    const match = ARCHIVE_PATH.exec(normalise(pathname));
    if (!match) throw errors.notFound('no such archive resource');
    const [chatId, archiveId, resource] = match.slice(1).map(decodeURIComponent);
    const chat = model.chatById(chatId);
    const archive = chat.archives.get(archiveId);
    if (!archive) throw errors.notFound(`no archive ${archiveId}`);
    if (resource === 'meta') return metaJson(chat, archive);
    const file = archive.files.find((f) => f.id === resource);
    if (!file) throw errors.notFound(`no file ${resource} in archive ${archiveId}`);
    return fileMessages(chat, file);
}

module.exports = {addArchive, metaJson, isArchivePath, handleArchive};
