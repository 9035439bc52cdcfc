# Lists the agent's keys (SSH_AUTH_SOCK) with paramiko and has each one sign
# some data; prints each key type with "verified" when paramiko checks the
# signature against the listed public key, "FAILED" when not.
import paramiko
kinds = {"ssh-rsa": paramiko.RSAKey, "ssh-dss": paramiko.DSSKey, "ssh-ed25519": paramiko.Ed25519Key,
         "ecdsa-sha2-nistp256": paramiko.ECDSAKey, "ecdsa-sha2-nistp384": paramiko.ECDSAKey,
         "ecdsa-sha2-nistp521": paramiko.ECDSAKey}
data = b"data to be signed"
for key in paramiko.Agent().get_keys():
    if key.get_name() in kinds:
        public = kinds[key.get_name()](data=key.asbytes())
        signature = paramiko.Message(key.sign_ssh_data(data))
        print(key.get_name(), "verified" if public.verify_ssh_sig(data, signature) else "FAILED")
