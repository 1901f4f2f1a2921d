'use strict';
// The data a fresh emulator starts with, so that a client can connect at once: the vendor
// "demo-account", the public chatroom "lobby" with users, messages, metadata, counters,
// stickers and an archive, and the members alice, bob and carol.

const {addArchive} = require('./archive');

const DEFAULT_PLATFORM = 'demo-account';
const LOBBY = 'lobby';
const LOBBY_ARCHIVE_ID = 'lobby-archive-2023';

const MEMBERS = [
    {memberId: 'alice', name: 'Alice', role: 'MODERATOR'},
    {memberId: 'bob', name: 'Bob', role: 'NORMAL'},
    {memberId: 'carol', name: 'Carol', role: 'MASTER'},
];

// Users already in the lobby (not connected through any client).
const LOBBY_USERS = [
    {memberId: 'zoe', name: 'Zoe', role: 'GLOBAL_MANAGER'},
    {memberId: 'yuki', name: 'Yuki', role: 'MODERATOR'},
    {memberId: 'xavier', name: 'Xavier', role: 'NORMAL'},
    {name: 'Guest', role: 'NORMAL'},
    {memberId: 'mallory', name: 'Mallory', role: 'BLOCKED'},
    {memberId: 'walter', name: 'Walter', role: 'NORMAL', status: 'DELETED'},
    {memberId: 'vera', name: 'Vera', role: 'MODERATOR', status: 'PREACTIVE'},
];

const LOBBY_MESSAGES = [
    {by: 'Zoe', text: 'Welcome to the lobby!'},
    {by: 'Yuki', text: 'Be nice to each other.'},
    {by: 'Xavier', text: 'Hello everyone'},
    {by: 'Guest', text: ':wave:'},
    {by: 'Xavier', text: 'Anyone here from the demo?'},
];

function stickerSets(baseUrl) {
    const image = (name) => `${baseUrl}/static/stickers/${name}.png`;
    return [
        {name: 'Basics', mainImage: image('basics'), stickers: {':wave:': image('wave'), ':smile:': image('smile')}},
        {name: 'Party', mainImage: image('party'), stickers: {':tada:': image('tada')}},
    ];
}

function seedLobbyArchive(model, lobby, authors) {
    // Three files of five messages, one minute apart, with an hour between files (mid 2023,
    // away from the turn of the year, where week-based years would confuse date parsing).
    const files = [];
    let time = Date.UTC(2023, 5, 1, 9, 0, 0);
    for (let f = 0; f < 3; f += 1) {
        const messages = [];
        for (let m = 0; m < 5; m += 1) {
            const author = authors[(f * 5 + m) % authors.length];
            messages.push({
                text: `Archived ${f + 1}.${m + 1}`, createdMs: time,
                creatorLabel: author.label, creator: model.userJson(author),
            });
            time += 60_000;
        }
        files.push({id: `file-${String(f + 1).padStart(4, '0')}`, messages});
        time += 3_600_000;
    }
    addArchive(lobby, {archiveId: LOBBY_ARCHIVE_ID, files});
}

function seedDefaults(model) {
    for (const {memberId, name} of MEMBERS) {
        model.addMember({memberId, name, platform: DEFAULT_PLATFORM});
        model.mintJwt(memberId);
    }
    const lobby = model.createChat({
        platform: DEFAULT_PLATFORM,
        channelCode: LOBBY,
        stickers: stickerSets(model.baseUrl()),
        aggregated: [{key: 'like', n: 3}, {key: 'clap', n: 1}],
        createdMs: Date.UTC(2024, 2, 1, 8, 0, 0),
    });
    for (const {memberId, role} of MEMBERS) lobby.memberRoles.set(memberId, role);

    const byName = new Map();
    for (const user of LOBBY_USERS) {
        if (user.memberId) model.addMember({memberId: user.memberId, name: user.name});
        byName.set(user.name, model.addUser(lobby, user));
    }
    const start = Date.now() - LOBBY_MESSAGES.length * 60_000;
    LOBBY_MESSAGES.forEach(({by, text}, i) => {
        model.addMessage(lobby, {value: text, creator: byName.get(by), createdMs: start + i * 60_000, announce: false});
    });
    model.addMessage(lobby, {
        msgType: 'raw', value: {kind: 'poll', question: 'Tea or coffee?', options: ['tea', 'coffee']},
        creator: byName.get('Zoe'), createdMs: start + 30_000, announce: false,
    });
    model.addMessage(lobby, {
        msgType: 'aggregate', aggregated: [{key: 'like', n: 3}, {key: 'clap', n: 1}],
        createdMs: start + 45_000, announce: false,
    });
    model.setMetadata(lobby, {key: 'topic', value: 'General chat'});
    model.setMetadata(lobby, {key: 'rules', value: {maxLength: 300, links: false}});
    model.setMetadata(lobby, {key: 'internal-flags', value: {beta: true}, reserved: true});
    model.setMetadata(lobby, {key: 'vendor-note', value: 'not for clients', scope: 'vendor'});
    seedLobbyArchive(model, lobby, ['Zoe', 'Yuki', 'Xavier'].map((name) => byName.get(name)));
}

module.exports = {seedDefaults, DEFAULT_PLATFORM, LOBBY, LOBBY_ARCHIVE_ID, MEMBERS};
