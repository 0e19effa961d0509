// Permissions, sign-in, quotas and the wording of errors.
import assert from 'node:assert/strict';
import { createHash, randomBytes } from 'node:crypto';
import test from 'node:test';
import { failure, folderType, startEmulator } from './emulator.mjs';

const emulator = await startEmulator('--seed', 'empty');
const drive = await emulator.client();
await emulator.admin('POST', '/users', { email: 'ada@example.com', name: 'Ada Example' });
const ada = await emulator.client('ada@example.com');
const create = async (name, more = {}) =>
  (await drive.files.create({ requestBody: { name, ...more }, fields: '*' })).data;

test('permissions are listed, given, changed and taken', async () => {
  const folder = await create('shared', { mimeType: folderType });
  const file = await create('inside', { parents: [folder.id] });
  assert.equal((await failure(ada.files.get({ fileId: file.id }))).status, 404);
  const { data: given } = await drive.permissions.create({ fileId: folder.id, fields: '*',
    requestBody: { type: 'user', role: 'reader', emailAddress: 'ada@example.com' } });
  assert.equal(given.displayName, 'Ada Example');
  const list = (await drive.permissions.list({ fileId: folder.id, fields: 'permissions(role,emailAddress)' })).data;
  assert.deepEqual(list.permissions.map((one) => one.role), ['owner', 'reader']);
  assert.equal((await ada.files.get({ fileId: file.id, fields: 'ownedByMe' })).data.ownedByMe, false);
  const rename = () => ada.files.update({ fileId: file.id, requestBody: { name: 'by ada' } });
  const refused = await failure(rename());
  assert.deepEqual([refused.status, refused.reason], [403, 'insufficientFilePermissions']);
  await drive.permissions.update({ fileId: folder.id, permissionId: given.id, requestBody: { role: 'writer' } });
  await rename();
  assert.equal((await failure(ada.files.delete({ fileId: file.id }))).status, 403);
  assert.equal((await drive.permissions.get({ fileId: folder.id, permissionId: given.id })).data.role, 'writer');
  await drive.permissions.delete({ fileId: folder.id, permissionId: given.id });
  assert.equal((await failure(ada.files.get({ fileId: file.id }))).status, 404);
  assert.equal((await failure(drive.permissions.get({ fileId: folder.id, permissionId: given.id }))).status, 404);
});

test('anyone with the link', async () => {
  const file = await create('public');
  await drive.permissions.create({ fileId: file.id, requestBody: { type: 'anyone', role: 'reader' } });
  assert.equal((await ada.files.get({ fileId: file.id })).data.name, 'public');
  assert.deepEqual((await ada.files.list({ q: 'sharedWithMe' })).data.files, []);
});

test('members of a shared drive', async () => {
  const driveId = (await drive.drives.create({ requestId: 'members', requestBody: { name: 'Team' } })).data.id;
  assert.equal((await failure(ada.drives.get({ driveId }))).status, 404);
  await drive.permissions.create({ fileId: driveId, supportsAllDrives: true,
    requestBody: { type: 'user', role: 'fileOrganizer', emailAddress: 'ada@example.com' } });
  assert.equal((await ada.drives.get({ driveId })).data.name, 'Team');
  await ada.files.create({ supportsAllDrives: true, requestBody: { name: 'by ada', parents: [driveId] } });
  assert.equal((await failure(ada.drives.update({ driveId, requestBody: { name: 'mine' } }))).status, 403);
});

test('errors have the public form', async (t) => {
  const file = await create('errors');
  const cases = {
    400: [() => drive.files.list({ pageSize: 5000 }), 'invalidParameter'],
    404: [() => drive.files.get({ fileId: 'nowhere' }), 'notFound'],
    412: [() => drive.files.update({ fileId: file.id, requestBody: { name: 'x' } }, { headers: { 'If-Match': '"old"' } }), 'conditionNotMet'],
  };
  for (const [status, [call, reason]] of Object.entries(cases)) {
    await t.test(status, async () => {
      const error = await failure(call());
      assert.deepEqual([error.status, error.code, error.reason], [Number(status), Number(status), reason]);
      assert.ok(error.message);
    });
  }
  for (const [status, reason] of [[403, 'userRateLimitExceeded'], [429, 'rateLimitExceeded'], [410, 'deleted'], [500, 'backendError']]) {
    await t.test(`injected ${status}`, async () => {
      await emulator.admin('POST', '/faults', { method: 'drive.files.get', status, reason });
      const error = await failure(drive.files.get({ fileId: file.id }));
      assert.deepEqual([error.status, error.reason], [status, reason]);
      assert.equal((await drive.files.get({ fileId: file.id })).status, 200);
    });
  }
  await t.test('401', async () => {
    const answer = await emulator.raw('GET', '/drive/v3/files', { token: 'stale' });
    assert.equal(answer.status, 401);
    assert.match(answer.headers.get('www-authenticate'), /invalid_token/);
    assert.equal((await answer.json()).error.errors[0].reason, 'authError');
  });
  await t.test('malformed JSON', async () => {
    const answer = await emulator.raw('POST', '/drive/v3/files', { body: '{"name":', headers: { 'content-type': 'application/json' } });
    assert.equal((await answer.json()).error.errors[0].reason, 'parseError');
  });
});

test('the client retries what the service limits', async () => {
  const patient = await emulator.client();
  await emulator.admin('POST', '/faults', { method: 'drive.about.get', status: 429, times: 2 });
  const { status } = await patient.about.get({ fields: 'user' }, { retry: true, retryConfig: { retry: 3, retryDelay: 1 } });
  assert.equal(status, 200);
  assert.deepEqual(await emulator.admin('GET', '/faults'), []);
});

test('quota fills up', async () => {
  await emulator.admin('POST', '/quota', { user: 'ada@example.com', total: 1000 });
  const put = (size) => ada.files.create({ requestBody: { name: 'fill' }, media: { body: 'x'.repeat(size), mimeType: 'text/plain' } });
  await put(900);
  const full = await failure(put(200));
  assert.deepEqual([full.status, full.reason], [403, 'storageQuotaExceeded']);
  const { data } = await ada.about.get({ fields: 'storageQuota' });
  assert.deepEqual([data.storageQuota.limit, data.storageQuota.usage], ['1000', '900']);
});

test('sign-in with consent, PKCE, refresh and revocation', async () => {
  const verifier = randomBytes(32).toString('base64url');
  const challenge = createHash('sha256').update(verifier).digest('base64url');
  const base = emulator.address.api;
  const redirect = 'http://127.0.0.1:54321/done';
  const query = new URLSearchParams({ client_id: 'vormlane-demo', redirect_uri: redirect, response_type: 'code',
    scope: 'https://www.googleapis.com/auth/drive', state: 'a b&c', code_challenge: challenge, code_challenge_method: 'S256' });
  const page = await (await fetch(`${base}/o/oauth2/v2/auth?${query}`)).text();
  assert.match(page, /id="approve"/);
  assert.match(page, /id="deny"/);
  const answer = async (consent) => {
    const form = new URLSearchParams(query);
    form.set('account', 'ada@example.com');
    form.set('consent', consent);
    const reply = await fetch(`${base}/o/oauth2/v2/auth`, { method: 'POST', body: form, redirect: 'manual' });
    assert.equal(reply.status, 302);
    return new URL(reply.headers.get('location'));
  };
  assert.equal((await answer('deny')).searchParams.get('error'), 'access_denied');
  const back = await answer('allow');
  assert.equal(back.searchParams.get('state'), 'a b&c');
  const token = (fields) => fetch(`${base}/token`, { method: 'POST', body: new URLSearchParams(
    { client_id: 'vormlane-demo', client_secret: 'vormlane-demo-secret', ...fields }) });
  const exchange = (code, more = {}) => token(
    { grant_type: 'authorization_code', code, redirect_uri: redirect, code_verifier: verifier, ...more });
  const wrong = await exchange((await answer('allow')).searchParams.get('code'), { code_verifier: 'x' });
  assert.deepEqual([wrong.status, (await wrong.json()).error], [400, 'invalid_grant']);
  assert.equal((await exchange('any', { client_secret: 'x' })).status, 401);
  const tokens = await (await exchange(back.searchParams.get('code'))).json();
  assert.equal(tokens.token_type, 'Bearer');
  assert.equal((await exchange(back.searchParams.get('code'))).status, 400);
  const who = async (bearer) => emulator.raw('GET', '/drive/v3/about?fields=user', { token: bearer });
  assert.equal((await (await who(tokens.access_token)).json()).user.emailAddress, 'ada@example.com');
  await emulator.admin('POST', '/expire-tokens');
  assert.equal((await who(tokens.access_token)).status, 401);
  const refresh = () => token({ grant_type: 'refresh_token', refresh_token: tokens.refresh_token });
  const renewed = await (await refresh()).json();
  assert.equal((await who(renewed.access_token)).status, 200);
  assert.equal((await fetch(`${base}/revoke?token=${encodeURIComponent(tokens.refresh_token)}`, { method: 'POST' })).status, 200);
  assert.equal((await who(renewed.access_token)).status, 401);
  assert.deepEqual((await (await refresh()).json()).error, 'invalid_grant');
  const stranger = new URLSearchParams(query);
  stranger.set('redirect_uri', 'https://example.com/');
  assert.equal((await fetch(`${base}/o/oauth2/v2/auth?${stranger}`)).status, 400);
});
