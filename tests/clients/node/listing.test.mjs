// Account records, listing, searching, field selection and paging.
import assert from 'node:assert/strict';
import test from 'node:test';
import { allFiles, failure, folderType, startEmulator } from './emulator.mjs';

const emulator = await startEmulator('--seed', 'demo');
const drive = await emulator.client();
const names = async (q, more = {}) =>
  (await allFiles(drive, { q, pageSize: 1000, ...more })).map((file) => file.name).sort();

test('about, version 2', async () => {
  const v2 = await emulator.client(undefined, 'v2');
  const { data } = await v2.about.get({ fields: 'name,quotaBytesTotal,quotaBytesUsedAggregate,rootFolderId,user' });
  assert.equal(data.name, 'Demo User');
  assert.equal(data.user.emailAddress, 'demo@example.com');
  assert.equal(data.quotaBytesTotal, String(15 * 2 ** 30));
  assert.ok(Number(data.quotaBytesUsedAggregate) > 64 * 2 ** 20);
  const root = await drive.files.get({ fileId: 'root', fields: 'id' });
  assert.equal(data.rootFolderId, root.data.id);
  assert.ok((await v2.about.get()).data.permissionId);
});

test('about, version 3, needs a field selection', async () => {
  const { data } = await drive.about.get({ fields: 'user,storageQuota' });
  assert.deepEqual(Object.keys(data).sort(), ['storageQuota', 'user']);
  assert.equal(data.user.me, true);
  const refused = await failure(drive.about.get());
  assert.deepEqual([refused.status, refused.reason], [400, 'required']);
});

test('defaults of a listing', async () => {
  const { data } = await drive.files.list();
  assert.equal(data.kind, 'drive#fileList');
  assert.equal(data.files.length, 100);
  assert.deepEqual(Object.keys(data.files[0]).sort(), ['id', 'kind', 'mimeType', 'name']);
});

test('the whole tree by folders equals the emulator\'s own', async () => {
  const tree = await emulator.admin('GET', '/tree');
  const flatten = (node) => [node.id, ...(node.children ?? []).flatMap(flatten)];
  const walk = async (id) => {
    const children = await allFiles(drive, { q: `'${id}' in parents and trashed = false`, pageSize: 7 });
    const below = await Promise.all(children.map((child) => (child.mimeType === folderType ? walk(child.id) : [child.id])));
    return [id, ...below.flat()];
  };
  assert.deepEqual((await walk(tree.root.id)).sort(), flatten(tree.root).sort());
});

test('query language', async (t) => {
  const cases = {
    "name = 'Welcome.txt'": ['Welcome.txt'],
    "name = 'either/or.txt'": ['either/or.txt'],
    "name contains 'invoice'": ['Invoice 2023-11.md', 'Invoice 2023-12.md'],
    "name contains 'Invoice' and not name contains '2023-12'": ['Invoice 2023-11.md'],
    "name = 'quote \\' and \".txt'": ['quote \' and ".txt'],
    "mimeType = 'application/vnd.google-apps.document'": ['Report'],
    "(name = 'Minutes.md' or name = 'Travel.md') and trashed = false": ['Minutes.md', 'Travel.md'],
    "name != 'Contract.md' and name contains 'Contract'": [],
    "mimeType contains 'video/'": ['recording.mp4'],
    "sharedWithMe and mimeType = 'application/vnd.google-apps.folder'": ['Common work'],
    "modifiedTime < '2024-03-01T12:00:30' and name contains 'welcome'": ['Welcome.txt'],
    "modifiedTime >= '2024-03-01T12:00:00Z' and modifiedTime <= '2024-03-01T12:00:00Z'": ['Welcome.txt'],
    "modifiedTime > '2090-01-01T00:00:00'": [],
    "'ada@example.com' in owners and sharedWithMe and name contains 'letter 2'": ['letter 2.txt'],
    "starred = true": [],
  };
  for (const [q, expected] of Object.entries(cases)) {
    await t.test(q, async () => assert.deepEqual(await names(q), expected));
  }
  for (const q of ['name', "name ! 'x'", "'x' in nothing", 'trashed = perhaps', "name = 'open"]) {
    await t.test(`refused: ${q}`, async () => {
      const refused = await failure(drive.files.list({ q }));
      assert.deepEqual([refused.status, refused.reason, refused.location], [400, 'invalid', 'q']);
    });
  }
});

test('orders', async () => {
  const list = async (orderBy) =>
    (await allFiles(drive, { q: "'root' in parents", orderBy, pageSize: 3, fields: 'nextPageToken,files(name,mimeType,modifiedTime)' }));
  const byName = (await list('name')).map((file) => file.name.toLowerCase());
  assert.deepEqual(byName, [...byName].sort());
  const foldersFirst = (await list('folder,name desc')).map((file) => file.mimeType === folderType);
  assert.deepEqual(foldersFirst, [...foldersFirst].sort().reverse());
  const newest = (await list('modifiedTime desc')).map((file) => file.modifiedTime);
  assert.deepEqual(newest, [...newest].sort().reverse());
  assert.equal((await failure(drive.files.list({ orderBy: 'colour' }))).location, 'orderBy');
});

test('page sizes', async () => {
  for (const pageSize of [1, 2, 250, 1000]) {
    const { data } = await drive.files.list({ pageSize });
    assert.equal(data.files.length, Math.min(pageSize, data.files.length));
    assert.ok(pageSize === 1000 || data.nextPageToken);
  }
  for (const pageSize of [0, 1001, -5]) {
    const refused = await failure(drive.files.list({ pageSize }));
    assert.deepEqual([refused.status, refused.location], [400, 'pageSize']);
  }
});

test('field selection', async () => {
  const select = async (fields) => (await drive.files.list({ pageSize: 1, q: "name = 'Welcome.txt'", fields })).data;
  assert.deepEqual(await select('files/name'), { files: [{ name: 'Welcome.txt' }] });
  assert.deepEqual(await select('files(name,owners/displayName)'),
    { files: [{ name: 'Welcome.txt', owners: [{ displayName: 'Demo User' }] }] });
  assert.deepEqual(Object.keys(await select('kind')), ['kind']);
  const all = (await select('*')).files[0];
  for (const name of ['id', 'size', 'md5Checksum', 'version', 'headRevisionId', 'webViewLink', 'webContentLink',
    'createdTime', 'modifiedTime', 'parents', 'capabilities', 'permissions', 'lastModifyingUser', 'spaces']) {
    assert.ok(name in all, name);
  }
  assert.match(all.modifiedTime, /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$/);
  assert.equal(typeof all.size, 'string');
  const refused = await failure(drive.files.list({ fields: 'files(colour)' }));
  assert.deepEqual([refused.status, refused.reason, refused.location], [400, 'invalidParameter', 'fields']);
});

test('paging to the end while files are inserted', async () => {
  const parent = (await drive.files.create({ requestBody: { name: 'growing', mimeType: folderType } })).data.id;
  await emulator.admin('POST', '/children', { parent, count: 500, prefix: 'old ' });
  const inserting = (async () => {
    for (let i = 0; i < 60; ++i) {
      await drive.files.create({ requestBody: { name: `new ${i}`, parents: [parent] } });
    }
  })();
  const found = (await allFiles(drive, { q: `'${parent}' in parents`, pageSize: 20 })).map((file) => file.name);
  await inserting;
  const old = found.filter((name) => name.startsWith('old '));
  assert.equal(old.length, 500);
  assert.equal(new Set(found).size, found.length);
});

test('shared drives, under both names', async () => {
  const drives = (await drive.drives.list({ pageSize: 1 })).data;
  assert.equal(drives.kind, 'drive#driveList');
  assert.equal(drives.drives[0].name, 'Engineering');
  const second = (await drive.drives.list({ pageToken: drives.nextPageToken })).data;
  assert.deepEqual(second.drives.map((one) => one.name), ['Marketing']);
  const { data: teams } = await drive.teamdrives.list();
  assert.deepEqual(teams.teamDrives.map((one) => one.kind), ['drive#teamDrive', 'drive#teamDrive']);
  const driveId = drives.drives[0].id;
  assert.equal((await drive.drives.get({ driveId, fields: 'name' })).data.name, 'Engineering');
  const inside = { corpora: 'drive', driveId, includeItemsFromAllDrives: true, supportsAllDrives: true };
  assert.deepEqual(await names("name = 'Read me.txt'", inside), ['Read me.txt']);
  assert.deepEqual(await names("name = 'Read me.txt'"), []);
  assert.equal((await failure(drive.files.list({ corpora: 'drive' }))).status, 400);
  assert.equal((await failure(drive.drives.get({ driveId: 'nowhere' }))).status, 404);
});

test('a shared drive is made, renamed, hidden and removed', async () => {
  const { data: made } = await drive.drives.create({ requestId: 'request-1', requestBody: { name: 'Temporary' } });
  const again = await failure(drive.drives.create({ requestId: 'request-1', requestBody: { name: 'Temporary' } }));
  assert.equal(again.status, 409);
  const driveId = made.id;
  await drive.drives.update({ driveId, requestBody: { name: 'Renamed' } });
  assert.equal((await drive.drives.hide({ driveId, fields: 'hidden' })).data.hidden, true);
  assert.equal((await drive.drives.unhide({ driveId, fields: 'hidden,name' })).data.name, 'Renamed');
  const file = await drive.files.create({ supportsAllDrives: true, requestBody: { name: 'x', parents: [driveId] } });
  assert.equal((await failure(drive.drives.delete({ driveId }))).status, 403);
  await drive.files.delete({ fileId: file.data.id, supportsAllDrives: true });
  await drive.drives.delete({ driveId });
  assert.equal((await failure(drive.drives.get({ driveId }))).status, 404);
});

test('ids made in advance', async () => {
  const { data } = await drive.files.generateIds({ count: 3 });
  assert.equal(new Set(data.ids).size, 3);
  const made = await drive.files.create({ requestBody: { id: data.ids[0], name: 'planned' } });
  assert.equal(made.data.id, data.ids[0]);
  const again = await failure(drive.files.create({ requestBody: { id: data.ids[0], name: 'again' } }));
  assert.equal(again.status, 409);
});
