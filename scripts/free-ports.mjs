// Prints N loopback ports that are free now, distinct, and not the real install's.
import net from 'node:net';

const wanted = Number(process.argv[2] ?? 2);
const servers = [];
const ports = [];
while (ports.length < wanted) {
  const server = net.createServer();
  await new Promise((resolve, reject) => server.listen(0, '127.0.0.1', resolve).on('error', reject));
  servers.push(server);
  const { port } = server.address();
  if (port !== 47321 && port !== 47322) ports.push(port);
}
await Promise.all(servers.map((server) => new Promise((resolve) => server.close(resolve))));
console.log(ports.join(' '));
