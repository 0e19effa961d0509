// Reading and writing of content.
import assert from 'node:assert/strict';
import { createHash, randomBytes } from 'node:crypto';
import { Readable } from 'node:stream';
import test from 'node:test';
import { failure, startEmulator } from './emulator.mjs';

const emulator = await startEmulator('--seed', 'demo');
const drive = await emulator.client();
const md5 = (bytes) => createHash('md5').update(bytes).digest('hex');
const granule = 256 * 1024;

async function read(fileId, range) {
  const answer = await drive.files.get({ fileId, alt: 'media' },
    { responseType: 'arraybuffer', headers: range ? { Range: range } : {} });
  return { status: answer.status, bytes: Buffer.from(answer.data), headers: answer.headers };
}
const header = (headers, name) => (headers.get ? headers.get(name) : headers[name]);

async function put(name, bytes, mimeType = 'application/octet-stream') {
  const { data } = await drive.files.create({
    requestBody: { name }, media: { mimeType, body: Readable.from([bytes]) }, fields: '*' });
  return data;
}

test('multipart upload and download', async () => {
  const bytes = randomBytes(100_000);
  const file = await put('multi.bin', bytes);
  assert.equal(file.size, '100000');
  assert.equal(file.md5Checksum, md5(bytes));
  assert.equal(file.mimeType, 'application/octet-stream');
  const whole = await read(file.id);
  assert.equal(whole.status, 200);
  assert.deepEqual(whole.bytes, bytes);
});

test('ranges', async () => {
  const bytes = randomBytes(5000);
  const { id } = await put('range.bin', bytes);
  for (const [range, from, to] of [['bytes=0-0', 0, 1], ['bytes=100-199', 100, 200], ['bytes=4990-', 4990, 5000],
    ['bytes=-7', 4993, 5000], ['bytes=4999-9999', 4999, 5000]]) {
    const part = await read(id, range);
    assert.equal(part.status, 206, range);
    assert.deepEqual(part.bytes, bytes.subarray(from, to), range);
    assert.equal(header(part.headers, 'content-range'), `bytes ${from}-${to - 1}/5000`);
  }
  const answer = await emulator.raw('GET', `/drive/v3/files/${id}?alt=media`, { headers: { range: 'bytes=5000-' } });
  assert.equal(answer.status, 416);
  assert.equal(answer.headers.get('content-range'), 'bytes */5000');
  assert.equal((await answer.json()).error.errors[0].reason, 'requestedRangeNotSatisfiable');
});

test('HEAD tells the length and sends nothing', async () => {
  const { id } = await put('head.bin', randomBytes(321));
  const answer = await emulator.raw('HEAD', `/drive/v3/files/${id}?alt=media`);
  assert.equal(answer.headers.get('content-length'), '321');
  assert.equal((await answer.arrayBuffer()).byteLength, 0);
});

test('empty content', async () => {
  const file = await put('empty.bin', Buffer.alloc(0));
  assert.equal(file.size, '0');
  assert.equal(file.md5Checksum, md5(''));
  assert.equal((await read(file.id)).bytes.length, 0);
});

test('content is replaced under the same id', async () => {
  const { id, headRevisionId, version } = await put('replaced.txt', Buffer.from('one'));
  const { data } = await drive.files.update({ fileId: id, media: { mimeType: 'text/plain', body: 'two!' }, fields: '*' });
  assert.equal(data.size, '4');
  assert.notEqual(data.headRevisionId, headRevisionId);
  assert.ok(Number(data.version) > Number(version));
  assert.equal((await read(id)).bytes.toString(), 'two!');
});

async function openSession(name, total, fileId = '') {
  const answer = await emulator.raw(fileId ? 'PATCH' : 'POST',
    `/upload/drive/v3/files${fileId && '/' + fileId}?uploadType=resumable&fields=id,size,md5Checksum`, {
      headers: { 'content-type': 'application/json; charset=UTF-8', 'x-upload-content-type': 'image/png',
                 ...(total === undefined ? {} : { 'x-upload-content-length': String(total) }) },
      body: JSON.stringify(fileId ? {} : { name }),
    });
  assert.equal(answer.status, 200);
  return answer.headers.get('location');
}
const putPart = (session, bytes, from, to, total = bytes.length) => emulator.raw('PUT', session,
  { body: bytes.subarray(from, to), headers: { 'content-range': `bytes ${from}-${to - 1}/${total}` } });

test('resumable upload in multiples of 256 KiB', async () => {
  const bytes = randomBytes(3 * granule + 11);
  const session = await openSession('resumable.png', bytes.length);
  for (let from = 0; from < 3 * granule; from += granule) {
    const answer = await putPart(session, bytes, from, from + granule);
    assert.equal(answer.status, 308);
    assert.equal(answer.headers.get('range'), `bytes=0-${from + granule - 1}`);
  }
  const search = () => drive.files.list({ q: "name = 'resumable.png'", fields: 'files(mimeType)' });
  assert.equal((await search()).data.files.length, 0);
  const done = await putPart(session, bytes, 3 * granule, bytes.length);
  assert.equal(done.status, 200);
  assert.equal((await done.json()).md5Checksum, md5(bytes));
  assert.deepEqual((await search()).data.files, [{ mimeType: 'image/png' }]);
});

test('an upload whose total is told last', async () => {
  const bytes = randomBytes(granule + 5);
  const session = await openSession('unknown.png');
  assert.equal((await putPart(session, bytes, 0, granule, '*')).status, 308);
  assert.equal((await (await putPart(session, bytes, granule, bytes.length)).json()).size, String(bytes.length));
});

test('a cut upload is asked for its state and continued', async () => {
  const bytes = randomBytes(2 * granule);
  const session = await openSession('cut.png', bytes.length);
  await emulator.admin('POST', '/faults', { method: 'drive.upload.content', kind: 'reset-body', at: granule + 1000 });
  await assert.rejects(emulator.raw('PUT', session, { body: bytes }));
  const state = await emulator.raw('PUT', session, { headers: { 'content-range': `bytes */${bytes.length}` } });
  assert.equal(state.status, 308);
  assert.equal(state.headers.get('range'), `bytes=0-${granule - 1}`);
  const done = await putPart(session, bytes, granule, bytes.length);
  assert.equal(done.status, 200);
  assert.equal((await done.json()).md5Checksum, md5(bytes));
});

test('an update by a resumable session', async () => {
  const { id } = await put('old.bin', randomBytes(10));
  const bytes = randomBytes(1000);
  const session = await openSession('', bytes.length, id);
  const done = await emulator.raw('PUT', session, { body: bytes });
  assert.equal((await done.json()).id, id);
  assert.deepEqual((await read(id)).bytes, bytes);
});

test('sessions that are unknown or cancelled', async () => {
  const session = await openSession('never.png', 3);
  assert.equal((await emulator.raw('DELETE', session)).status, 499);
  assert.equal((await emulator.raw('PUT', session, { body: 'abc' })).status, 410);
  const unknown = session.replace(/upload_id=.*/, 'upload_id=unknown');
  assert.equal((await emulator.raw('PUT', unknown, { body: 'abc' })).status, 404);
});

test('Google documents are exported, not downloaded', async () => {
  const { data } = await drive.files.list({ q: "name = 'Report'", fields: 'files(id,size,exportLinks)' });
  const [report] = data.files;
  assert.equal(report.size, undefined);
  assert.ok(report.exportLinks['text/plain']);
  const refused = await failure(drive.files.get({ fileId: report.id, alt: 'media' }));
  assert.deepEqual([refused.status, refused.reason], [403, 'fileNotDownloadable']);
  const text = await drive.files.export({ fileId: report.id, mimeType: 'text/plain' });
  assert.match(text.data, /Report/);
  assert.equal((await failure(drive.files.export({ fileId: report.id, mimeType: 'image/x-nothing' }))).status, 400);
  const { id } = await put('plain.bin', Buffer.from('x'));
  assert.equal((await failure(drive.files.export({ fileId: id, mimeType: 'text/plain' }))).reason, 'fileNotExportable');
});

test('a synthetic file has the digest of its bytes', async () => {
  const { id } = await emulator.admin('POST', '/items', { path: 'made/up.bin', size: 1_000_003 });
  const { data } = await drive.files.get({ fileId: id, fields: 'md5Checksum,size' });
  assert.equal(data.md5Checksum, md5((await read(id)).bytes));
});
