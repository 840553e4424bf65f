// The stand-in `tailscale serve`'s proxy: listens on a free loopback port,
// passes every request (WebSocket upgrades too) to the target it is given,
// and prints its port on the first line of its output. As the real serve
// does, it tells the target who asked: the client's address last in
// X-Forwarded-For (here the loopback address the test's client came from,
// standing in for its tailnet address), the scheme and host the client
// used, and the tailnet user's login and name.
// Usage: node serve-proxy.js http://127.0.0.1:<port> [login]

import http from 'node:http';
import net from 'node:net';

const target = new URL(process.argv[2]);
const port = Number(target.port);
const login = process.argv[3] ?? 'ada@example.com';

function forwardedHeaders(req) {
  const prior = req.headers['x-forwarded-for'];
  const client = req.socket.remoteAddress;
  return {
    'x-forwarded-for': prior ? `${prior}, ${client}` : client,
    'x-forwarded-proto': 'https',
    'x-forwarded-host': req.headers.host ?? '',
    'tailscale-user-login': login,
    'tailscale-user-name': login.split('@')[0],
  };
}

const server = http.createServer((req, res) => {
  const upstream = http.request(
    { host: '127.0.0.1', port, method: req.method, path: req.url, headers: { ...req.headers, ...forwardedHeaders(req) } },
    (answer) => {
      res.writeHead(answer.statusCode, answer.headers);
      answer.pipe(res);
    },
  );
  upstream.on('error', () => {
    res.writeHead(502, { 'Content-Type': 'text/plain' });
    res.end('502 Bad Gateway\n');
  });
  req.pipe(upstream);
});

server.on('upgrade', (req, socket, head) => {
  const upstream = net.connect(port, '127.0.0.1', () => {
    const lines = [`${req.method} ${req.url} HTTP/1.1`];
    const added = forwardedHeaders(req);
    for (let i = 0; i < req.rawHeaders.length; i += 2) {
      if (!(req.rawHeaders[i].toLowerCase() in added)) lines.push(`${req.rawHeaders[i]}: ${req.rawHeaders[i + 1]}`);
    }
    for (const [name, value] of Object.entries(added)) lines.push(`${name}: ${value}`);
    upstream.write(`${lines.join('\r\n')}\r\n\r\n`);
    upstream.write(head);
    upstream.pipe(socket).pipe(upstream);
  });
  upstream.on('error', () => socket.destroy());
  socket.on('error', () => upstream.destroy());
});

server.listen(0, '127.0.0.1', () => process.stdout.write(`${server.address().port}\n`));
