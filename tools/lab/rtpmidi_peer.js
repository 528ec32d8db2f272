// A peer built on the npm package `rtpmidi`: accepts one session and plays COUNT notes, two per datagram.
//
//     node rtpmidi_peer.js PACKAGE_FOLDER CONTROL_PORT COUNT
const [, , folder, port, count] = process.argv;
const { manager } = require(folder);

const session = manager.createSession({ port: Number(port), bonjourName: 'Other', published: false });

session.on('ready', () => console.log('listening'));

// The package stores one token, that of the control invitation, and would also accept the data invitation with it. An
// acceptance must carry the token of the invitation that it answers.
session.on('controlMessage', (message) => {
  const stream = message.command === 'invitation' && session.getStream(message.ssrc);
  if (stream) stream.token = message.token;
});

session.on('streamAdded', ({ stream }) => {
  stream.on('control-message', (message) => {
    // Starts a clock exchange of its own, and plays when it has been answered.
    if (message.command === 'synchronization' && message.count === 0) stream.sendSynchronization();
    if (message.command === 'synchronization' && message.count === 1) play(stream);
  });
});

session.on('streamRemoved', () => console.log('session ended'));

const note = number => ({ deltaTime: 0, data: Buffer.from([0x90, 36 + (number % 60), 1 + (number % 127)]) });

let isPlaying = false;

function play(stream) {
  if (isPlaying) return;
  isPlaying = true;
  let number = 0;
  const timer = setInterval(() => {
    stream.sendMessage({ timestamp: session.now(), commands: [note(number), note(number + 1)] });
    number += 2;
    if (number < Number(count)) return;
    clearInterval(timer);
    console.log(`played ${count}`);
  }, 2);
}
