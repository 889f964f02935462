<p>answer <?= $answer ?>, visits <?= $visits ?></p>
