// Serves the demo page on http://127.0.0.1:PORT/ (PORT from the first
// argument, 8765 by default) until interrupted.
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const dir = path.dirname(fileURLToPath(import.meta.url));
const types = { '.html': 'text/html; charset=utf-8', '.js': 'text/javascript; charset=utf-8' };
const port = Number(process.argv[2] ?? 8765);

http.createServer((request, response) => {
  const name = new URL(request.url, 'http://x').pathname.replace(/^\/$/, '/index.html');
  const file = path.join(dir, path.basename(name));
  if (!types[path.extname(file)] || !fs.existsSync(file)) {
    response.statusCode = 404;
    response.end('not found');
    return;
  }
  response.setHeader('content-type', types[path.extname(file)]);
  fs.createReadStream(file).pipe(response);
}).listen(port, '127.0.0.1', () => {
  console.log(`demo page: http://127.0.0.1:${port}/ (Ctrl-C stops)`);
});
