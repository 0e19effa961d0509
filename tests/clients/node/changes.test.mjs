// Metadata, trash, copies, the change log and its channels.
import assert from 'node:assert/strict';
import { once } from 'node:events';
import { createServer } from 'node:http';
import test from 'node:test';
import { failure, folderType, startEmulator } from './emulator.mjs';

const emulator = await startEmulator('--seed', 'empty');
const drive = await emulator.client();
const create = async (name, more = {}) =>
  (await drive.files.create({ requestBody: { name, ...more }, fields: '*' })).data;
const get = async (fileId) => (await drive.files.get({ fileId, fields: '*' })).data;
const startToken = async () => (await drive.changes.getStartPageToken()).data.startPageToken;

test('metadata is created and changed', async () => {
  const made = await create('plain', { description: 'a', properties: { one: '1', two: '2' },
    createdTime: '2010-01-02T03:04:05.678Z', modifiedTime: '2011-01-02T03:04:05Z' });
  assert.equal(made.createdTime, '2010-01-02T03:04:05.678Z');
  assert.equal(made.modifiedTime, '2011-01-02T03:04:05.000Z');
  await drive.files.update({ fileId: made.id, requestBody: { name: 'changed', starred: true, properties: { one: null } } });
  const changed = await get(made.id);
  assert.deepEqual([changed.name, changed.starred, changed.description], ['changed', true, 'a']);
  assert.deepEqual(changed.properties, { two: '2' });
  assert.equal(changed.createdTime, made.createdTime);
});

test('parents are changed by parameters only', async () => {
  const [from, to] = [await create('from', { mimeType: folderType }), await create('to', { mimeType: folderType })];
  const file = await create('moved', { parents: [from.id] });
  await drive.files.update({ fileId: file.id, addParents: to.id, removeParents: from.id });
  assert.deepEqual((await get(file.id)).parents, [to.id]);
  const refused = await failure(drive.files.update({ fileId: file.id, requestBody: { parents: [from.id] } }));
  assert.deepEqual([refused.status, refused.reason], [403, 'fieldNotWritable']);
  assert.equal((await failure(drive.files.update({ fileId: to.id, addParents: to.id }))).status, 403);
  assert.equal((await failure(create('lost', { parents: ['nowhere'] }))).status, 404);
  assert.equal((await failure(create('below a file', { parents: [file.id] }))).reason, 'parentNotAFolder');
});

test('copy', async () => {
  const { data: original } = await drive.files.create(
    { requestBody: { name: 'original.txt' }, media: { mimeType: 'text/plain', body: 'text' }, fields: '*' });
  const { data: copy } = await drive.files.copy({ fileId: original.id, fields: '*' });
  assert.equal(copy.name, 'Copy of original.txt');
  assert.notEqual(copy.id, original.id);
  assert.equal(copy.md5Checksum, original.md5Checksum);
  await drive.files.delete({ fileId: original.id });
  assert.equal((await drive.files.get({ fileId: copy.id, alt: 'media' })).data, 'text');
  const folder = await create('folder', { mimeType: folderType });
  assert.equal((await failure(drive.files.copy({ fileId: folder.id }))).reason, 'cannotCopyFile');
});

test('trash, untrash, empty trash, delete', async () => {
  const folder = await create('rubbish', { mimeType: folderType });
  const file = await create('inside', { parents: [folder.id] });
  await drive.files.update({ fileId: folder.id, requestBody: { trashed: true } });
  const inside = await get(file.id);
  assert.deepEqual([inside.trashed, inside.explicitlyTrashed], [true, false]);
  await drive.files.update({ fileId: folder.id, requestBody: { trashed: false } });
  assert.equal((await get(file.id)).trashed, false);
  await drive.files.update({ fileId: file.id, requestBody: { trashed: true } });
  await drive.files.emptyTrash();
  assert.equal((await failure(drive.files.get({ fileId: file.id }))).status, 404);
  const deep = await create('deep', { parents: [folder.id] });
  await drive.files.delete({ fileId: folder.id });
  assert.equal((await failure(drive.files.get({ fileId: deep.id }))).status, 404);
});

test('change log', async () => {
  const start = await startToken();
  const first = await create('first'), second = await create('second');
  await drive.files.update({ fileId: first.id, requestBody: { name: 'renamed' } });
  const list = async (pageToken, more = {}) => (await drive.changes.list({ pageToken, fields: '*', ...more })).data;
  const page = await list(start, { pageSize: 1 });
  assert.deepEqual(page.changes.map((change) => change.fileId), [second.id]);
  assert.ok(page.nextPageToken && !page.newStartPageToken);
  const last = await list(page.nextPageToken);
  assert.deepEqual(last.changes.map((change) => change.file.name), ['renamed']);
  await drive.files.delete({ fileId: second.id });
  const [removal] = (await list(last.newStartPageToken)).changes;
  assert.deepEqual([removal.removed, removal.fileId, removal.file, removal.changeType], [true, second.id, undefined, 'file']);
  assert.deepEqual((await list(last.newStartPageToken, { includeRemoved: false })).changes, []);
  const future = await failure(drive.changes.list({ pageToken: String(Number(await startToken()) + 1) }));
  assert.deepEqual([future.status, future.location], [400, 'pageToken']);
  const without = await emulator.raw('GET', '/drive/v3/changes');
  assert.equal((await without.json()).error.errors[0].reason, 'required');
});

test('changes of shared drives are told when asked for', async () => {
  const driveId = (await drive.drives.create({ requestId: 'changes', requestBody: { name: 'Team' } })).data.id;
  const start = await startToken();
  const file = await drive.files.create({ supportsAllDrives: true, requestBody: { name: 'in team', parents: [driveId] } });
  const all = { pageToken: start, includeItemsFromAllDrives: true, supportsAllDrives: true, fields: '*' };
  assert.deepEqual((await drive.changes.list({ pageToken: start })).data.changes, []);
  assert.deepEqual((await drive.changes.list(all)).data.changes.map((change) => change.fileId), [file.data.id]);
  await drive.drives.update({ driveId, requestBody: { name: 'Team, renamed' } });
  assert.ok((await drive.changes.list(all)).data.changes.length >= 1);
});

test('channels are opened, told and stopped', async () => {
  const notices = [];
  const server = createServer((request, response) => {
    notices.push(request.headers);
    response.end();
    server.emit('notice');
  });
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  const address = `http://127.0.0.1:${server.address().port}/hook`;
  const watch = (more = {}) => drive.changes.watch(
    { pageToken: '1', requestBody: { id: 'one', type: 'web_hook', address, token: 'secret', ...more } });
  const synced = once(server, 'notice');
  const { data: channel } = await watch();
  assert.equal(channel.kind, 'api#channel');
  assert.ok(Number(channel.expiration) > Date.now());
  await synced;
  assert.equal(notices[0]['x-goog-resource-state'], 'sync');
  const told = once(server, 'notice');
  await create('noticed');
  await told;
  assert.equal(notices[1]['x-goog-resource-state'], 'change');
  assert.equal(notices[1]['x-goog-channel-token'], 'secret');
  assert.equal(notices[1]['x-goog-resource-id'], channel.resourceId);
  assert.equal((await failure(watch())).reason, 'channelIdNotUnique');
  assert.equal((await failure(watch({ id: 'two', address: 'http://example.com/hook' }))).status, 400);
  assert.equal((await failure(watch({ id: 'three', type: 'pigeon' }))).status, 400);
  const stop = (resourceId) => drive.channels.stop({ requestBody: { id: 'one', resourceId } });
  assert.equal((await failure(stop('another'))).status, 404);
  await stop(channel.resourceId);
  assert.equal((await failure(stop(channel.resourceId))).status, 404);
  server.close();
  server.closeAllConnections();
});
