// Logs in as docs/protocol.md tells, and prints about it what is no secret: node login.mjs URL KEY
import { createHash } from "node:crypto";
import { addressOf, keccak256, sign } from "./wallet.mjs";

const [url, key] = process.argv.slice(2);
const privateKey = BigInt("0x" + key);
const wallet_address = addressOf(privateKey);

async function post(path, body) {
  const headers = { "Content-Type": "application/json" };
  const answer = await fetch(url + path, { method: "POST", headers, body: JSON.stringify(body) });
  if (!answer.ok) throw new Error(`${path}: ${answer.status} ${await answer.text()}`);
  return answer.json();
}

await post("/auth/register", { wallet_address });
const { challenge_id, message } = await post("/auth/challenge", { wallet_address });
const text = Buffer.from(message);
const personal = Buffer.concat([Buffer.from(`\x19Ethereum Signed Message:\n${text.length}`), text]);
const signature = sign(keccak256(personal), privateKey);
const { token, wallet_secret } = await post("/auth/verify", { challenge_id, signature });
const { sub } = JSON.parse(Buffer.from(token.split(".")[1], "base64url"));
const secretBytes = Buffer.from(wallet_secret, "base64").length;
const signatureHash = createHash("sha256").update(signature).digest("hex");
console.log(JSON.stringify({ wallet_address, message, signatureHash, sub, secretBytes }));
