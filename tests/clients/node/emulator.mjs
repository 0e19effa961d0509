// Starts an emulator for one test file and gives clients of it.
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { createInterface } from 'node:readline';
import { after } from 'node:test';
import { auth, drive as makeDrive } from '@googleapis/drive';

const program = process.env.DRIVE_EMULATOR;
if (!program) throw new Error('DRIVE_EMULATOR must be the path of the drive-emulator program');

export const demoUser = 'demo@example.com';
export const folderType = 'application/vnd.google-apps.folder';

export async function startEmulator(...options) {
  const child = spawn(program, options, { stdio: ['ignore', 'pipe', 'inherit'] });
  after(async () => {
    child.kill('SIGTERM');
    if (child.exitCode === null) await once(child, 'exit');
  });
  const [line] = await once(createInterface({ input: child.stdout }), 'line');
  const address = Object.fromEntries(
    line.split(' ').slice(1).map((pair) => [pair.slice(0, pair.indexOf('=')), pair.slice(pair.indexOf('=') + 1)]));
  return new Emulator(address);
}

class Emulator {
  constructor(address) {
    this.address = address;
  }

  async admin(method, path, body) {
    const answer = await fetch(this.address.admin + path,
      { method, body: body === undefined ? undefined : JSON.stringify(body) });
    if (!answer.ok) throw new Error(`${method} ${path}: ${await answer.text()}`);
    return answer.json();
  }

  async token(user = demoUser) {
    return (await this.admin('POST', `/tokens?user=${encodeURIComponent(user)}`)).accessToken;
  }

  async client(user = demoUser, version = 'v3') {
    const credentials = new auth.OAuth2();
    credentials.setCredentials({ access_token: await this.token(user) });
    const rootUrl = this.address.api + '/';
    const drive = makeDrive({ version, auth: credentials, rootUrl, retry: false });
    // Calls with content take their address from the call's own options alone.
    for (const name of ['create', 'update']) {
      const call = drive.files[name]?.bind(drive.files);
      drive.files[name] = (params, options) => call(params, { rootUrl, ...options });
    }
    return drive;
  }

  // A request that the client library does not make by itself.
  async raw(method, url, { token, headers = {}, body } = {}) {
    return fetch(url.startsWith('http') ? url : this.address.api + url, {
      method, body, redirect: 'manual',
      headers: { authorization: `Bearer ${token ?? await this.token()}`, ...headers },
    });
  }
}

// The error of a call that must fail, as the service words it.
export async function failure(promise) {
  try {
    await promise;
  } catch (error) {
    const body = typeof error.response?.data === 'string' ? JSON.parse(error.response.data)
      : error.response?.data;
    if (!body?.error) throw error;
    return { status: error.response.status, code: body.error.code, message: body.error.message,
             reason: body.error.errors[0].reason, location: body.error.errors[0].location,
             headers: error.response.headers };
  }
  throw new Error('the call succeeded');
}

export async function allFiles(drive, params) {
  const files = [];
  let pageToken;
  do {
    const { data } = await drive.files.list({ ...params, pageToken });
    files.push(...data.files);
    pageToken = data.nextPageToken;
  } while (pageToken);
  return files;
}
