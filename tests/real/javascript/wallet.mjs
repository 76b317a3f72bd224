// What a wallet needs and Node.js does not have: Keccak-256, and signatures from which the signer can be recovered.
import { createECDH, createHmac } from "node:crypto";

const N = 0xfffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141n;
const hex = (n) => n.toString(16).padStart(64, "0");
const number = (bytes) => BigInt("0x" + bytes.toString("hex"));
const turned = (x, by) => BigInt.asUintN(64, (x << by) | (x >> (64n - by)));

export function keccak256(bytes) {
  const a = Array(25).fill(0n), padded = Buffer.alloc((Math.floor(bytes.length / 136) + 1) * 136);
  bytes.copy(padded);
  padded[bytes.length] ^= 1;
  padded[padded.length - 1] ^= 0x80;
  for (let at = 0, lfsr; at < padded.length; at += 136) {
    for (let i = 0; i < 17; i++) a[i] ^= padded.readBigUInt64LE(at + 8 * i);
    lfsr = 1;
    for (let round = 0; round < 24; round++) {
      const c = [0, 1, 2, 3, 4].map((x) => a[x] ^ a[x + 5] ^ a[x + 10] ^ a[x + 15] ^ a[x + 20]);
      for (let i = 0; i < 25; i++) a[i] ^= c[(i + 4) % 5] ^ turned(c[(i + 1) % 5], 1n);
      for (let t = 0, x = 1, y = 0, lane = a[1]; t < 24; t++) {
        [x, y] = [y, (2 * x + 3 * y) % 5];
        [lane, a[x + 5 * y]] = [a[x + 5 * y], turned(lane, BigInt(((t + 1) * (t + 2) / 2) % 64))];
      }
      for (let y = 0; y < 25; y += 5) {
        const row = a.slice(y, y + 5);
        for (let x = 0; x < 5; x++) a[y + x] ^= BigInt.asUintN(64, ~row[(x + 1) % 5]) & row[(x + 2) % 5];
      }
      for (let j = 0; j < 7; j++, lfsr = (lfsr << 1) ^ (lfsr >> 7) * 0x171) {
        if (lfsr & 1) a[0] ^= 1n << BigInt(2 ** j - 1);
      }
    }
  }
  const digest = Buffer.alloc(32);
  for (let i = 0; i < 4; i++) digest.writeBigUInt64LE(a[i], 8 * i);
  return digest;
}

// The public key of a private one: the byte 4, x, y.
function point(scalar) {
  const curve = createECDH("secp256k1");
  curve.setPrivateKey(Buffer.from(hex(scalar), "hex"));
  return curve.getPublicKey();
}

function inverse(x) {
  let [a, b, u, v] = [x, N, 1n, 0n];
  while (a > 1n) [a, b, u, v] = [b % a, a, v - (b / a) * u, u];
  return ((u % N) + N) % N;
}

export function addressOf(d) {
  return "0x" + keccak256(point(d).subarray(1)).subarray(12).toString("hex");
}

// Deterministic, with low s. RFC 6979 goes on to a second nonce where one is too large: in one of 2^127 cases.
export function sign(digest, d) {
  const z = number(digest), hmac = (k, ...parts) => createHmac("sha256", k).update(Buffer.concat(parts)).digest();
  const seed = Buffer.from(hex(d) + hex(z % N), "hex");
  let v = Buffer.alloc(32, 1), k = Buffer.alloc(32);
  for (const byte of [0, 1]) {
    k = hmac(k, v, Buffer.of(byte), seed);
    v = hmac(k, v);
  }
  const nonce = number(hmac(k, v)), R = point(nonce), r = number(R.subarray(1, 33));
  let s = (inverse(nonce) * (z + r * d)) % N, odd = R[64] & 1;
  if (s > N / 2n) [s, odd] = [N - s, 1 - odd];
  return "0x" + hex(r) + hex(s) + (27 + odd).toString(16);
}
