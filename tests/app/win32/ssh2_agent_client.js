'use strict';
// A third-party agent client: the ssh2 package's OpenSSHAgent or PageantAgent,
// with the agent messages ssh2 has no method for (add, remove, lock, unlock)
// written on its own agent stream. Prints one line per step and "done" last,
// from the last callback, so a helper that never answers shows as no "done".
//   node ssh2_agent_client.js openssh|pageant check
//   node ssh2_agent_client.js openssh|pageant sign ROUNDS
const crypto = require('crypto');
const { OpenSSHAgent, PageantAgent } = require('ssh2');
const { sigSSHToASN1 } = require('ssh2/lib/protocol/utils.js');

const [channel, task, rounds] = process.argv.slice(2);
const agent = channel === 'pageant' ? new PageantAgent() : new OpenSSHAgent('\\\\.\\pipe\\openssh-ssh-agent');

const SUCCESS = 6;

const u32 = (n) => { const b = Buffer.alloc(4); b.writeUInt32BE(n); return b; };
const str = (b) => Buffer.concat([u32(Buffer.byteLength(b)), Buffer.from(b)]);
const mpint = (b) => {
  let i = 0;
  while (i < b.length && b[i] === 0) ++i;
  b = b.subarray(i);
  return str(b.length && b[0] & 0x80 ? Buffer.concat([Buffer.from([0]), b]) : b);
};
const jwk = (key) => {
  const j = key.export({ format: 'jwk' });
  const out = {};
  for (const k of Object.keys(j)) if (k !== 'kty' && k !== 'crv') out[k] = Buffer.from(j[k], 'base64url');
  return out;
};

// A new key: its public blob and its add request (17).
function new_key(type) {
  const { privateKey } = crypto.generateKeyPairSync(type, { modulusLength: 2048, namedCurve: 'P-256' });
  const j = jwk(privateKey);
  const blob = type === 'rsa' ? Buffer.concat([str('ssh-rsa'), mpint(j.e), mpint(j.n)])
    : Buffer.concat([str('ecdsa-sha2-nistp256'), str('nistp256'), str(Buffer.concat([Buffer.from([4]), j.x, j.y]))]);
  const secret = type === 'rsa'
    ? Buffer.concat([str('ssh-rsa'), mpint(j.n), mpint(j.e), mpint(j.d), mpint(j.qi), mpint(j.p), mpint(j.q)])
    : Buffer.concat([blob, mpint(j.d)]);
  return { blob, add: Buffer.concat([Buffer.from([17]), secret, str(`ssh2 ${type}`)]) };
}

// One request on a fresh agent stream; resolves with the reply body.
function call(body) {
  return new Promise((resolve, reject) => {
    agent.getStream((err, stream) => {
      if (err)
        return reject(err);
      let got = Buffer.alloc(0);
      stream.on('data', (data) => {
        got = Buffer.concat([got, data]);
        if (got.length >= 4 && got.length >= 4 + got.readUInt32BE(0)) {
          stream.destroy();
          resolve(got.subarray(4, 4 + got.readUInt32BE(0)));
        }
      });
      stream.on('error', reject);
      stream.write(Buffer.concat([u32(body.length), body]));
    });
  });
}

async function expect_success(what, body) {
  const reply = await call(body);
  if (reply[0] !== SUCCESS)
    throw new Error(`${what}: reply ${reply[0]}`);
  console.log(`${what}: ok`);
}

const identities = () => new Promise((resolve, reject) =>
  agent.getIdentities((err, keys) => (err ? reject(err) : resolve(keys))));

async function find(blob) {
  return (await identities()).find((k) => k.getPublicSSH().equals(blob));
}

const agent_sign = (key, data, hash) => new Promise((resolve, reject) =>
  agent.sign(key, data, hash ? { hash } : {}, (err, sig) => (err ? reject(err) : resolve(sig))));

// Signs with the agent and verifies with ssh2's own verifier.
async function sign_and_verify(key, hash) {
  const data = crypto.randomBytes(64);
  let sig = await agent_sign(key, data, key.type === 'ssh-rsa' ? hash : undefined);
  if (key.type.startsWith('ecdsa'))
    sig = sigSSHToASN1(sig, key.type);
  if (key.verify(data, sig, hash) !== true)
    throw new Error(`${key.type} ${hash}: the signature does not verify`);
}

async function check() {
  const rsa = new_key('rsa'), ecdsa = new_key('ec');
  await expect_success('add rsa', rsa.add);
  await expect_success('add ecdsa', ecdsa.add);
  const rsa_id = await find(rsa.blob), ecdsa_id = await find(ecdsa.blob);
  if (!rsa_id || !ecdsa_id)
    throw new Error('an added key is not listed');
  console.log(`listed: ${(await identities()).length}`);
  for (const hash of ['sha256', 'sha512'])
    await sign_and_verify(rsa_id, hash);
  console.log('rsa-sha2-256 and rsa-sha2-512: verified');
  await sign_and_verify(ecdsa_id, 'sha256');
  console.log('ecdsa-sha2-nistp256: verified');

  await expect_success('remove ecdsa', Buffer.concat([Buffer.from([18]), str(ecdsa.blob)]));
  if (await find(ecdsa.blob))
    throw new Error('the removed key is still listed');
  console.log('removed key: not listed');

  await expect_success('lock', Buffer.concat([Buffer.from([22]), str('ssh2 lock')]));
  const sign_request = Buffer.concat([Buffer.from([13]), str(rsa.blob), str('x'), u32(2)]);
  const locked = await call(sign_request);
  if (locked[0] === 14)
    throw new Error('a locked agent signed');
  // ssh2's Pageant stream never calls back on a reply type it does not know
  // (the agent's "locked" code), so only the OpenSSH stream is asked through
  // ssh2 itself.
  if (channel !== 'pageant' &&
      await agent_sign(rsa_id, Buffer.from('x'), 'sha256').then(() => true, () => false))
    throw new Error('a locked agent signed for ssh2');
  console.log(`locked: sign refused (reply ${locked[0]})`);
  await expect_success('unlock', Buffer.concat([Buffer.from([23]), str('')]));
  await expect_success('remove rsa', Buffer.concat([Buffer.from([18]), str(rsa.blob)]));
}

async function sign_rounds(count) {
  const ecdsa = new_key('ec');
  await expect_success('add ecdsa', ecdsa.add);
  const key = await find(ecdsa.blob);
  for (let i = 0; i < count; ++i)
    await sign_and_verify(key, 'sha256');
  console.log(`signed and verified: ${count}`);
}

(task === 'sign' ? sign_rounds(Number(rounds)) : check()).then(
  () => console.log('done'),
  (err) => {
    console.log(`failed: ${err.message}`);
    process.exitCode = 1;
  });
