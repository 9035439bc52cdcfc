// Lists the agent's keys (SSH_AUTH_SOCK) with the ssh2 npm package found in
// the folder given, and has each one sign some data; prints each key type with
// "verified" when ssh2 checks the signature against the listed key.
const dir = process.argv[2] + '/node_modules/ssh2';
const { OpenSSHAgent } = require(dir);
const { sigSSHToASN1 } = require(dir + '/lib/protocol/utils.js');
const agent = new OpenSSHAgent(process.env.SSH_AUTH_SOCK);
const data = Buffer.from('data to be signed');
agent.getIdentities((err, keys) => {
  if (err) { console.log('FAILED to list:', err.message); process.exit(1); }
  let pending = keys.length;
  for (const key of keys) {
    agent.sign(key, data, { hash: 'sha256' }, (err, sig) => {
      if (err) {
        console.log(key.type, 'FAILED to sign:', err.message);
      } else {
        const ok = key.verify(data, sigSSHToASN1(sig, key.type), key.type === 'ssh-rsa' ? 'sha256' : undefined);
        console.log(key.type, ok === true ? 'verified' : 'FAILED');
      }
      if (--pending === 0) process.exit(0);
    });
  }
});
