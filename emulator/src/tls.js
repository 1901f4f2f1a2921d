'use strict';
// A throw-away certificate authority and a server certificate for 127.0.0.1 and localhost, made
// with the openssl command line into a temporary directory. Clients trust the CA file.

const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const {execFileSync} = require('node:child_process');

function openssl(args, cwd) {
    execFileSync('openssl', args, {cwd, stdio: ['ignore', 'ignore', 'pipe']});
}

function makeCertificates() {
    const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tavlo-emulator-tls-'));
    const ecKey = ['-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes'];
    openssl(['req', '-x509', ...ecKey, '-keyout', 'ca.key', '-out', 'ca.pem', '-days', '30',
        '-subj', '/CN=Tavlo Emulator Test CA',
        '-addext', 'basicConstraints=critical,CA:TRUE',
        '-addext', 'keyUsage=critical,keyCertSign,cRLSign'], dir);
    openssl(['req', ...ecKey, '-keyout', 'server.key', '-out', 'server.csr',
        '-subj', '/CN=127.0.0.1'], dir);
    fs.writeFileSync(path.join(dir, 'server.ext'), [
        'basicConstraints=critical,CA:FALSE',
        'keyUsage=critical,digitalSignature,keyEncipherment',
        'extendedKeyUsage=serverAuth',
        'subjectAltName=IP:127.0.0.1,DNS:localhost',
        '',
    ].join('\n'));
    openssl(['x509', '-req', '-in', 'server.csr', '-CA', 'ca.pem', '-CAkey', 'ca.key',
        '-CAcreateserial', '-out', 'server.pem', '-days', '30', '-extfile', 'server.ext'], dir);
    return {
        dir,
        caFile: path.join(dir, 'ca.pem'),
        key: fs.readFileSync(path.join(dir, 'server.key')),
        cert: fs.readFileSync(path.join(dir, 'server.pem')),
        cleanup: () => fs.rmSync(dir, {recursive: true, force: true}),
    };
}

module.exports = {makeCertificates};
